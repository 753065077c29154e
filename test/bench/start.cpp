// From the fork to a daemon that serves, against a static program that does nothing. The daemon is started as a
// card starts it: in a root that the launcher has made, with its environment.
#include <cstdio>
#include <fcntl.h>
#include <linux/sockios.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "bench_chassis.h"
#include "benchmarks.h"
#include "bios_opcodes.h"
#include "chassis_dir.h"
#include "in_turn.h"
#include "mts_tools.h"
#include "started_process.h"
#include "timed_process.h"

namespace
{

constexpr unsigned RUNS = 41;
constexpr unsigned SLOT = 1;
constexpr double GOAL_MS = 10;
constexpr useconds_t LOOK_INTERVAL_US = 50;
constexpr auto PATIENCE = std::chrono::seconds(10);

unique_fd connect_to_daemon(const std::string &chassis_directory)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (void)std::snprintf(address.sun_path, sizeof address.sun_path, "%s/mts/%08x.%08x", chassis_directory.c_str(),
                        mts_node_of_slot(SLOT), BIOS_DAEMON_SAP);
    unique_fd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket || ::connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        return {};
    return socket;
}

// As the launcher tells it: something that was sent to the endpoint has been taken.
class serving_watch
{
public:
    explicit serving_watch(const std::string &chassis_directory) : directory_(chassis_directory) {}

    bool is_serving()
    {
        if (!socket_) {
            socket_ = connect_to_daemon(directory_);
            if (socket_ && ::send(socket_.get(), "", 1, MSG_NOSIGNAL) != 1)
                socket_.reset();
            return false;
        }
        int waiting_bytes = 0;
        if (::ioctl(socket_.get(), SIOCOUTQ, &waiting_bytes) != 0)
            throw std::runtime_error("the daemon's endpoint cannot be watched");
        return waiting_bytes == 0;
    }

private:
    std::string directory_;
    unique_fd socket_;
};

double start_daemon_ms(const std::string &chassis_directory, const start_plan &plan)
{
    const auto start = std::chrono::steady_clock::now();
    started_process daemon(plan);
    serving_watch watch(chassis_directory);
    while (!watch.is_serving()) {
        if (daemon.has_ended() || std::chrono::steady_clock::now() - start > PATIENCE)
            throw std::runtime_error("the daemon does not serve");
        (void)::usleep(LOOK_INTERVAL_US);
    }
    const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - start;
    return took.count();
}

double start_nothing_ms(const start_plan &plan)
{
    return timed_ms([&] { started_process(plan).await_success(); });
}

} // namespace

std::vector<figure> measure_start()
{
    bench_chassis cards;
    cards.insert({.slot = SLOT});
    cards.up("plain"); // the card's root is there without its mounts, also when the card is down
    if (cards.chassis({"down"}).exit_code != 0)
        throw std::runtime_error("the chassis does not go down");

    constexpr int DESCRIPTOR = 3;
    const std::string &directory = cards.chassis_directory();
    const unique_fd opened(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const start_plan daemon{.program = "/vesk/sbin/bios_daemon",
                            .environment = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin:/vesk/sbin", "HOME=/root",
                                            CHASSIS_ENV_DIR_FD + ("=" + std::to_string(DESCRIPTOR)),
                                            CHASSIS_ENV_SLOT + ("=" + std::to_string(SLOT))},
                            .root = cards.slot_file(SLOT, "root"),
                            .inherited_fd = opened.get(),
                            .output = cards.slot_file(SLOT, "log")};
    const start_plan nothing{.program = NOTHING_PROGRAM, .environment = {}};

    figure told{.row = 4,
                .name = "start of the daemon",
                .unit = "ms",
                .ours = {.name = "bios_daemon", .values = {}},
                .reference = {.name = "static program", .values = {}},
                .compared = comparison::difference,
                .goal = GOAL_MS,
                .remark = "from before the fork until the daemon has taken a first message from its endpoint; the "
                          "program does nothing and is timed until it has ended"};
    measure_in_turn(
        told.ours, [&] { return start_daemon_ms(directory, daemon); }, told.reference,
        [&] { return start_nothing_ms(nothing); }, RUNS);
    return {told};
}
