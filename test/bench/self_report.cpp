// A card's report of its own versions, against what it cannot do without: the check for a running bios_cmd for each
// row of the card's table, and one message there and back.
#include <array>
#include <cstdio>
#include <stdexcept>
#include <sys/wait.h>

#include "bench_chassis.h"
#include "benchmarks.h"
#include "bios_messages.h"
#include "card_surroundings.h"
#include "in_turn.h"
#include "latency.h"
#include "mts_frame.h"
#include "ping_pong.h"

namespace
{

constexpr unsigned SLOT = 1;
constexpr unsigned ROUNDS = 15;
constexpr std::chrono::milliseconds ROUND{250};
constexpr double GOAL = 1.1;

// As the daemon does it for each row.
void check_processes()
{
    std::FILE *pipe = ::popen("pgrep bios_cmd", "r");
    if (pipe == nullptr)
        throw std::runtime_error("popen");
    std::array<char, 128> line{};
    const bool running = std::fgets(line.data(), line.size(), pipe) != nullptr;
    const int status = ::pclose(pipe);
    if (running || !WIFEXITED(status) || WEXITSTATUS(status) != 1)
        throw std::runtime_error("pgrep does not work there");
}

std::string asked_report(requester &client)
{
    request_reply reply = ask_self_report(client, SLOT);
    if (reply.error != 0)
        throw std::runtime_error("a version request was not answered");
    return std::move(reply.payload);
}

std::size_t rows_of(const std::string &report)
{
    return (report.size() - sizeof(bios_new_vers_message)) / sizeof(bios_version_entry);
}

} // namespace

std::vector<figure> measure_self_report()
{
    bench_chassis chassis;
    chassis.insert({.slot = SLOT});
    chassis.up();
    requester client;
    const std::string report = asked_report(client);
    const std::size_t rows = rows_of(report);
    const pid_t daemon = chassis.daemon_pid(SLOT);
    ping_pong least(
        sizeof(mts_frame_header) + MTS_REQUEST_HEADER_BYTES + sizeof(bios_mod_version_req_t),
        sizeof(mts_frame_header) + report.size(), [daemon] { enter_surroundings(daemon); },
        [rows] {
            for (std::size_t row = 0; row < rows; ++row)
                check_processes();
        });

    figure told{.row = 2,
                .name = "self version report",
                .unit = "us",
                .ours = {"bios_daemon", {}},
                .reference = {std::to_string(rows) + " x popen(pgrep) + ping-pong", {}},
                .goal = GOAL};
    measure_in_turn(
        told.ours, [&] { return median_us(ROUND, [&] { (void)asked_report(client); }); }, told.reference,
        [&] { return median_us(ROUND, [&] { least.round_trip(); }); }, ROUNDS);
    told.remark =
        std::to_string(ROUNDS) + " rounds, each the median of " + std::to_string(ROUND.count()) +
        " ms of reports; the reference runs its commands in the card's root and among the card's processes";
    return {told};
}
