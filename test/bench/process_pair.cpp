#include "process_pair.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

double run_timed(const std::vector<std::string> &command)
{
    std::vector<char *> arguments;
    for (const std::string &word : command)
        arguments.push_back(const_cast<char *>(word.c_str())); // posix_spawn changes none
    arguments.push_back(nullptr);

    const auto start = std::chrono::steady_clock::now();
    pid_t process = -1;
    int status = -1;
    if (::posix_spawnp(&process, arguments[0], nullptr, nullptr, arguments.data(), environ) != 0 ||
        ::waitpid(process, &status, 0) != process || status != 0)
        throw std::runtime_error(command[0] + " failed");
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

timing summary_of(std::vector<double> runs_ms)
{
    std::sort(runs_ms.begin(), runs_ms.end());
    return {runs_ms[runs_ms.size() / 2], runs_ms.front(), runs_ms.back()};
}

} // namespace

pair_timing time_in_turn(const std::vector<std::string> &ours, const std::vector<std::string> &reference,
                         unsigned runs)
{
    (void)run_timed(ours);
    (void)run_timed(reference);
    std::vector<double> our_runs;
    std::vector<double> reference_runs;
    for (unsigned run = 0; run < runs; ++run) {
        our_runs.push_back(run_timed(ours));
        reference_runs.push_back(run_timed(reference));
    }
    return {summary_of(our_runs), summary_of(reference_runs)};
}

void print_pair(const std::string &what, const std::string &reference_name, const pair_timing &timing, double goal)
{
    std::printf("%s: %.2f ms (%.2f..%.2f), %s: %.2f ms (%.2f..%.2f), ratio %.2f, goal at most %.1f: %s\n",
                what.c_str(), timing.ours.median_ms, timing.ours.fastest_ms, timing.ours.slowest_ms,
                reference_name.c_str(), timing.reference.median_ms, timing.reference.fastest_ms,
                timing.reference.slowest_ms, timing.ratio(), goal, timing.ratio() <= goal ? "met" : "MISSED");
}
