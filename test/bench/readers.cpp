// Version readers and compare_bios_images beside memcmp over the same mapped pages: what function_bench measures,
// run by its repetitions in random order.
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "bench_chassis.h"
#include "benchmarks.h"
#include "in_turn.h"
#include "timed_process.h"

namespace
{

constexpr unsigned READERS_ROW = 10;
constexpr double READERS_GOAL = 1.2;
constexpr unsigned REPETITIONS = 11;

struct pair_of_samples {
    samples ours{"", {}};
    samples reference{"memcmp", {}};
};

// The real times of all repetitions in microseconds, by the name before the "/".
std::map<std::string, pair_of_samples> pairs_of(const nlohmann::json &told)
{
    std::map<std::string, pair_of_samples> pairs;
    for (const nlohmann::json &run : told.at("benchmarks")) {
        if (run.at("run_type") != "iteration")
            continue;
        if (run.contains("error_occurred"))
            throw std::runtime_error("function_bench: " + run.at("error_message").get<std::string>());
        const auto name = run.at("run_name").get<std::string>();
        const std::size_t slash = name.find('/');
        pair_of_samples &pair = pairs[name.substr(0, slash)];
        samples &side = name.compare(slash, std::string::npos, "/ours") == 0 ? pair.ours : pair.reference;
        side.values.push_back(run.at("real_time").get<double>() / 1000);
    }
    return pairs;
}

} // namespace

std::vector<figure> measure_readers()
{
    const std::string program = FUNCTION_BENCH_PROGRAM;
    if (!std::filesystem::exists(program))
        throw std::runtime_error("function_bench is not built: script/bench gets the library that it needs");
    bench_chassis home;
    home.insert({.slot = 1});
    home.up();
    const bench_folder folder;
    const std::string results = folder.file("results.json");
    const finished_program run = run_program(
        {program, "--benchmark_out=" + results, "--benchmark_out_format=json",
         "--benchmark_repetitions=" + std::to_string(REPETITIONS), "--benchmark_min_time=0.05",
         "--benchmark_enable_random_interleaving=true", folder.file(""), home.chassis_directory(), "1"});
    if (run.exit_code != 0)
        throw std::runtime_error("function_bench: " + run.errors);

    std::vector<figure> figures;
    for (auto &[name, pair] : pairs_of(nlohmann::json::parse(std::ifstream(results)))) {
        const bool reads = name != "compare_bios_images";
        pair.ours.name = reads ? "get_" + name + "_bios_version" : name;
        figures.push_back({.row = READERS_ROW,
                           .name = reads ? "version reader, " + name : "image comparison, 16 MiB",
                           .unit = "us",
                           .ours = pair.ours,
                           .reference = pair.reference,
                           .goal = READERS_GOAL});
    }
    return figures;
}
