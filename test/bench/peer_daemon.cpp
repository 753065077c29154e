#include "peer_daemon.h"

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "process_memory.h"
#include "run_program.h"
#include "test_images.h"
#include "wait_until.h"

namespace
{

constexpr const char *DAEMON_PROGRAM = "/usr/libexec/fwupd/fwupd";
constexpr const char *BUS_PROGRAM = "/usr/bin/dbus-daemon";
constexpr const char *NAME_ON_BUS = "org.freedesktop.fwupd";
constexpr auto PATIENCE = std::chrono::seconds(30);
constexpr auto IDLE_TIME = std::chrono::milliseconds(500); // without work and growth

void require(const char *program)
{
    if (!std::filesystem::exists(program))
        throw std::runtime_error(std::string(program) + " is not there");
}

std::string bus_configuration(const std::string &address)
{
    return "<busconfig><type>system</type><listen>" + address +
           "</listen><auth>EXTERNAL</auth><policy context=\"default\"><allow user=\"*\"/><allow own=\"*\"/>"
           "<allow send_destination=\"*\"/><allow receive_sender=\"*\"/></policy></busconfig>\n";
}

} // namespace

peer_daemon::peer_daemon() : bus_address_("unix:path=" + folder_.file("bus"))
{
    require(DAEMON_PROGRAM);
    require(BUS_PROGRAM);
    const std::string configuration = folder_.file("bus.conf");
    write_file(configuration, bus_configuration(bus_address_));
    bus_ = std::make_unique<started_process>(
        start_plan{.program = BUS_PROGRAM,
                   .environment = {},
                   .further_words = {"--config-file=" + configuration, "--nofork", "--nopidfile"}});
    if (!wait_until([&] { return std::filesystem::exists(folder_.file("bus")); }, PATIENCE))
        throw std::runtime_error(std::string(BUS_PROGRAM) + " does not start");
    daemon_ = std::make_unique<started_process>(
        start_plan{.program = DAEMON_PROGRAM,
                   .environment = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "HOME=/root",
                                   "DBUS_SYSTEM_BUS_ADDRESS=" + bus_address_,
                                   "FWUPD_LOCALSTATEDIR=" + folder_.file("state")}});
    await_service();
    await_idleness();
}

void peer_daemon::await_service()
{
    const auto serves = [&] {
        const finished_program asked = run_program(
            {"dbus-send", "--bus=" + bus_address_, "--print-reply=literal", "--dest=org.freedesktop.DBus", "/",
             "org.freedesktop.DBus.NameHasOwner", std::string("string:") + NAME_ON_BUS});
        return daemon_->has_ended() || asked.output.find("true") != std::string::npos;
    };
    if (!wait_until(serves, PATIENCE) || daemon_->has_ended())
        throw std::runtime_error(std::string(DAEMON_PROGRAM) + " does not serve");
}

void peer_daemon::await_idleness() const
{
    const auto is_idle = [&] {
        const unsigned long ticks = processor_ticks(number());
        const unsigned kib = resident_kib(number());
        std::this_thread::sleep_for(IDLE_TIME); // the time over which it is looked at
        return processor_ticks(number()) == ticks && resident_kib(number()) == kib;
    };
    if (!wait_until(is_idle, PATIENCE))
        throw std::runtime_error(std::string(DAEMON_PROGRAM) + " does not become idle");
}
