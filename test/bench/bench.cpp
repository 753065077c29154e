// Measures the daemon, the chassis and biosctl against what else does the work, and prints one table. script/bench
// builds it, installs the peers and runs it.
#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <fstream>

#include <CLI/CLI.hpp>

#include "benchmarks.h"
#include "request_profile.h"

namespace
{

constexpr std::array BENCHMARKS{
    benchmark_entry{"round_trip", "round trip of a request", measure_round_trip},
    benchmark_entry{"self_report", "self version report", measure_self_report},
    benchmark_entry{"query_while_programming", "version queries while a flash is written",
                    measure_query_while_programming},
    benchmark_entry{"start", "start of the daemon", measure_start},
    benchmark_entry{"memory", "memory, idle and while programming", measure_memory},
    benchmark_entry{"flash_writing", "writing, verifying and comparing a flash", measure_flash_writing},
    benchmark_entry{"extraction", "extraction of an image", measure_extraction},
    benchmark_entry{"readers", "version readers and image comparison", measure_readers},
    benchmark_entry{"show", "biosctl show for many cards", measure_show},
    benchmark_entry{"chassis_size", "memory and start time of a chassis", measure_chassis_size},
    benchmark_entry{"file_delivery", "delivery of a file to an agent", measure_file_delivery},
    benchmark_entry{"signature_check", "check of a signed image", measure_signature_check},
};

bool is_wanted(const std::vector<std::string> &wanted, const std::string &name)
{
    return wanted.empty() || std::find(wanted.begin(), wanted.end(), name) != wanted.end();
}

std::vector<figure> measure(const std::vector<std::string> &wanted)
{
    std::vector<figure> figures;
    for (const benchmark_entry &entry : BENCHMARKS) {
        if (!is_wanted(wanted, entry.name))
            continue;
        std::fprintf(stderr, "measuring: %s\n", entry.what);
        const std::vector<figure> measured = entry.measure();
        figures.insert(figures.end(), measured.begin(), measured.end());
    }
    std::stable_sort(figures.begin(), figures.end(),
                     [](const figure &a, const figure &b) { return a.row < b.row; });
    return figures;
}

} // namespace

int main(int argc, char **argv)
{
    std::string file_name;
    bool as_json = false;
    std::vector<std::string> wanted;
    CLI::App app("Measures the daemon against its peers and prints one table");
    app.add_flag("--json", as_json, "print JSON, with all values, in place of the table");
    app.add_option("--output", file_name, "file that gets the JSON, too");
    std::vector<std::string> names;
    for (const benchmark_entry &entry : BENCHMARKS)
        names.emplace_back(entry.name);
    app.add_option("NAME", wanted, "benchmarks to run; all when there is none")->check(CLI::IsMember(names));
    CLI11_PARSE(app, argc, argv);
    try {
        const std::vector<figure> figures = measure(wanted);
        const std::string json = json_of(figures) + "\n";
        std::fputs(as_json ? json.c_str() : table_of(figures).c_str(), stdout);
        if (!as_json && is_wanted(wanted, "round_trip"))
            std::fputs(text_of(profile_requests()).c_str(), stdout);
        if (!file_name.empty()) {
            std::ofstream file(file_name);
            file.exceptions(std::ios::failbit | std::ios::badbit);
            file << json;
        }
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "bench: %s\n", failure.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
