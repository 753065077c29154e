// A request that asks for no work, to a daemon that logs it as it has to, against two bare processes that send each
// other messages of the same sizes.
#include <chrono>
#include <cstdlib>
#include <stdexcept>

#include "agent_messages.h"
#include "bench_chassis.h"
#include "benchmarks.h"
#include "bios_messages.h"
#include "cmi.h"
#include "endpoints.h"
#include "in_turn.h"
#include "latency.h"
#include "lock_client.h"
#include "mts_frame.h"
#include "mts_tools.h"
#include "ping_pong.h"
#include "processor.h"

namespace
{

constexpr unsigned SLOT = 1;
constexpr unsigned ROUNDS = 25;
constexpr std::chrono::milliseconds ROUND{50};
constexpr double FREE_GOAL = 3;
constexpr double ONE_PROCESSOR_GOAL = 1.8;
constexpr double AGENT_GOAL = 2;

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

// Asks an agent who holds locks: nobody does.
class agent_client
{
public:
    explicit agent_client(unsigned slot)
        : handle_(mts_bind(BIND_KIND, ANY_SAP, BIND_OPTIONS, "bench")),
          node_(mts_node_of_slot(slot))
    {
    }
    void ask() const
    {
        void *block = nullptr;
        std::uint32_t length = 0;
        const char nothing = 0;
        const std::int32_t status =
            cmi_remote_req_resp(AGENT_OPC_GET_LOCKS, REQUEST_TYPE, &nothing, &block, &length, "bench", "bench",
                                AGENT_SAP, node_, handle_, WAIT_LIMIT_S);
        std::free(block);
        if (status != 0 || length != 0)
            throw std::runtime_error("a request to the agent was not answered");
    }

private:
    static constexpr std::uint32_t WAIT_LIMIT_S = 60;

    std::int32_t handle_;
    std::uint32_t node_;
};

figure measured_agent(const agent_client &client, ping_pong &bare)
{
    figure told{.row = 1,
                .name = "round trip of the agent, one processor",
                .unit = "us",
                .ours = {"bios_agent", {}},
                .reference = {"SOCK_SEQPACKET ping-pong", {}},
                .goal = AGENT_GOAL};
    measure_in_turn(
        told.ours, [&] { return median_us(ROUND, [&] { client.ask(); }); }, told.reference,
        [&] { return median_us(ROUND, [&] { bare.round_trip(); }); }, ROUNDS);
    told.remark = "it is asked for the holders of locks, of which there are none";
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
    const agent_client agents_client(SLOT);
    ping_pong bare_agent(sizeof(mts_frame_header) + MTS_REQUEST_HEADER_BYTES, sizeof(mts_frame_header));
    const on_one_processor with_agent({0, chassis.agent_pid(SLOT), bare_agent.other_process()});
    figures.push_back(measured_agent(agents_client, bare_agent));
    return figures;
}
