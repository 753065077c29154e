// A request that asks for no work, to a daemon that logs it as it has to, against two bare processes that send each
// other messages of the same sizes.
#include <cstdlib>
#include <stdexcept>

#include "bench_chassis.h"
#include "benchmarks.h"
#include "bios_messages.h"
#include "bios_opcodes.h"
#include "chassis_transport.h"
#include "cmi.h"
#include "in_turn.h"
#include "latency.h"
#include "mts_frame.h"
#include "ping_pong.h"
#include "processor.h"
#include "version_messages.h"

namespace
{

constexpr unsigned SLOT = 1;
constexpr unsigned ROUNDS = 25;
constexpr std::chrono::milliseconds ROUND{50};
constexpr double GOAL = 3;
constexpr std::uint32_t REQUEST_TYPE = 3;
constexpr std::uint32_t WAIT_LIMIT_S = 60;
constexpr std::uint32_t BIND_OPTIONS[MTS_BIND_OPTION_WORDS] = {1, 0, 1024, 0, 0, 15};
constexpr std::uint32_t NEVER_LOCKED = 0x4242; // node id of no card

// Asks for the unlocking of what was never locked: the lock service is asked, and nothing changes.
std::string unlock_request()
{
    return be32_bytes(BIOS_MODULE_LOCK_RELEASE) + be32_bytes(NEVER_LOCKED);
}

// An endpoint that knows where the daemon is.
class lock_client
{
public:
    void unlock() const
    {
        void *answer = nullptr;
        auto length = static_cast<std::uint32_t>(body_.size());
        const std::int32_t status =
            cmi_remote_req_resp(MTS_OPC_BIOS_MODULE_LOCK, REQUEST_TYPE, body_.data(), &answer, &length, "bench",
                                "bench", BIOS_DAEMON_SAP, node_, handle_, WAIT_LIMIT_S);
        std::free(answer);
        if (status != 0 || length != sizeof(bios_module_lock_reply_t))
            throw std::runtime_error("a request was not answered");
    }

private:
    const std::int32_t handle_ = mts_bind(1, -1, BIND_OPTIONS, "bench");
    const std::uint32_t node_ = chassis_mts_node_of_slot(SLOT);
    const std::string body_ = unlock_request();
};

figure measured(const std::string &name, const lock_client &client, ping_pong &bare)
{
    figure told{.row = 1,
                .name = name,
                .unit = "us",
                .ours = {"bios_daemon", {}},
                .reference = {"SOCK_SEQPACKET ping-pong", {}},
                .goal = GOAL};
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
    const lock_client client;
    ping_pong bare(sizeof(mts_frame_header) + MTS_REQUEST_HEADER_BYTES + sizeof(bios_module_lock_req_t),
                   sizeof(mts_frame_header) + sizeof(bios_module_lock_reply_t));

    // First where the system puts the processes: they stay together for a while after they were kept together.
    std::vector<figure> figures{measured("round trip, free", client, bare)};
    const on_one_processor together({0, chassis.daemon_pid(SLOT), bare.other_process()});
    figures.push_back(measured("round trip, one processor", client, bare));
    return figures;
}
