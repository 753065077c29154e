// A request that asks for no work, to a daemon that logs it as it has to, against two bare processes that send each
// other messages of the same sizes.
#include <chrono>

#include "bench_chassis.h"
#include "benchmarks.h"
#include "bios_messages.h"
#include "in_turn.h"
#include "latency.h"
#include "lock_client.h"
#include "mts_frame.h"
#include "ping_pong.h"
#include "processor.h"

namespace
{

constexpr unsigned SLOT = 1;
constexpr unsigned ROUNDS = 25;
constexpr std::chrono::milliseconds ROUND{50};
constexpr double FREE_GOAL = 3;
constexpr double ONE_PROCESSOR_GOAL = 1.8;

figure measured(const std::string &name, double goal, const lock_client &client, ping_pong &bare)
{
    figure told{.row = 1,
                .name = name,
                .unit = "us",
                .ours = {"bios_daemon", {}},
                .reference = {"SOCK_SEQPACKET ping-pong", {}},
                .goal = goal};
    measure_in_turn(
        told.ours, [&] { return median_us(ROUND, [&] { client.unlock(); }); }, told.reference,
        [&] { return median_us(ROUND, [&] { bare.round_trip(); }); }, ROUNDS);
    told.remark = std::to_string(ROUNDS) + " rounds, each the median of " + std::to_string(ROUND.count()) +
                  " ms of round trips; both sides' messages have the same sizes";
    return told;
}

} // namespace

std::vector<figure> measure_round_trip()
{
    bench_chassis chassis;
    chassis.insert({.slot = SLOT});
    chassis.up();
    const lock_client client(SLOT);
    ping_pong bare(sizeof(mts_frame_header) + MTS_REQUEST_HEADER_BYTES + sizeof(bios_module_lock_req_t),
                   sizeof(mts_frame_header) + sizeof(bios_module_lock_reply_t));

    // First where the system puts the processes: they stay together for a while after they were kept together.
    std::vector<figure> figures{measured("round trip, free", FREE_GOAL, client, bare)};
    figures.front().remark +=
        "; a wake-up across processors takes ten times as long, and which side has them is chance";
    const on_one_processor together({0, chassis.daemon_pid(SLOT), bare.other_process()});
    figures.push_back(measured("round trip, one processor", ONE_PROCESSOR_GOAL, client, bare));
    return figures;
}
