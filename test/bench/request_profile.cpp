#include "request_profile.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <sstream>
#include <stdexcept>

#include "bench_chassis.h"
#include "lock_client.h"
#include "timed_process.h"

namespace
{

constexpr unsigned SLOT = 1;
constexpr unsigned REQUESTS = 2000;

bool is_traced(pid_t process)
{
    std::istringstream status(file_content("/proc/" + std::to_string(process) + "/status"));
    for (std::string word; status >> word;) {
        if (word == "TracerPid:")
            return status >> word && word != "0";
    }
    return false;
}

std::size_t lines_of(const bench_chassis &chassis)
{
    const std::string log = chassis.log_of(SLOT);
    return static_cast<std::size_t>(std::count(log.begin(), log.end(), '\n'));
}

// Lines of strace's summary: "% time, seconds, usecs/call, calls, errors or nothing, name".
std::map<std::string, double> calls_of(const std::string &summary)
{
    std::map<std::string, double> calls;
    std::istringstream lines(summary);
    for (std::string line; std::getline(lines, line);) {
        double share = 0, seconds = 0, each = 0, count = 0;
        std::istringstream columns(line);
        if (!(columns >> share >> seconds >> each >> count))
            continue;
        const std::string name = line.substr(line.find_last_of(' ') + 1);
        // What happens now and then is no part of a request.
        if (name != "total" && count >= REQUESTS / 2)
            calls[name] = count / REQUESTS;
    }
    return calls;
}

} // namespace

request_profile profile_requests()
{
    bench_chassis chassis;
    chassis.insert({.slot = SLOT});
    chassis.up();
    const lock_client client(SLOT);
    client.unlock();
    const bench_folder folder;
    const std::string summary = folder.file("summary");
    const pid_t daemon = chassis.daemon_pid(SLOT);
    running_program tracer({"strace", "-c", "-o", summary, "-p", std::to_string(daemon)});
    if (!wait_until([&] { return is_traced(daemon); }))
        throw std::runtime_error("strace cannot look at the daemon: " + tracer.errors());

    const std::size_t lines_before = lines_of(chassis);
    for (unsigned request = 0; request < REQUESTS; ++request)
        client.unlock();
    const std::size_t lines = lines_of(chassis) - lines_before;
    tracer.signal(SIGINT);
    (void)tracer.wait();
    const request_profile profile{calls_of(file_content(summary)), static_cast<double>(lines) / REQUESTS};
    if (profile.calls.empty())
        throw std::runtime_error("strace has counted nothing: " + tracer.errors());
    return profile;
}

std::string text_of(const request_profile &profile)
{
    char number[32];
    std::string calls;
    double sum = 0;
    for (const auto &[name, count] : profile.calls) {
        (void)std::snprintf(number, sizeof number, " %.2g", count);
        calls += (calls.empty() ? "" : ", ") + name + number;
        sum += count;
    }
    (void)std::snprintf(number, sizeof number, "%.1f", sum);
    std::string text =
        std::string("a request that does no work: ") + number + " system calls of the daemon (" + calls;
    (void)std::snprintf(number, sizeof number, "%.1f", profile.log_lines);
    return text + "), " + number +
           " log lines; its payload is copied by the kernel in and out, and once from the receive buffer into the "
           "message's block\n";
}
