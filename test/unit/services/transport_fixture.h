// What the tests of the chassis's message transport share: a chassis in a folder of its own, with this process as
// its card 1, and other cards that are processes.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <vector>

#include "bios_opcodes.h"
#include "chassis_dir.h"
#include "cmi.h"
#include "endpoints.h"
#include "mts_tools.h"
#include "temporary_folder.h"
#include "unique_fd.h"
#include "watched_file.h"

namespace chassis_test
{

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using steady = std::chrono::steady_clock;

constexpr std::uint32_t OPCODE = 4791;
constexpr std::uint32_t DAEMON_SAP = BIOS_DAEMON_SAP;
constexpr std::uint32_t CARD_1 = 0x101; // a supervisor
constexpr std::uint32_t CARD_2 = 0x202; // a line card

inline std::int32_t bind_endpoint(std::int32_t sap)
{
    return mts_bind(BIND_KIND, sap, BIND_OPTIONS, "test");
}

inline std::int32_t receive(std::int32_t handle, mts_message_t **message, std::uint32_t wait_s)
{
    std::uint32_t options[10] = {1, 0, wait_s};
    return mts_recv(handle, message, options);
}

struct drop_message {
    void operator()(mts_message_t *message) const { mts_drop(0, message); }
};
using held_message = std::unique_ptr<mts_message_t, drop_message>;

inline held_message received(std::int32_t handle, std::uint32_t wait_s = 5)
{
    mts_message_t *message = nullptr;
    return receive(handle, &message, wait_s) == 0 ? held_message(message) : nullptr;
}

inline std::string text_of(mts_message_t *message)
{
    return {static_cast<const char *>(mts_payload_get(message)), mts_payload_length(message)};
}

inline int send_text(std::int32_t handle, std::uint32_t node, std::uint32_t sap, const std::string &text,
                     std::uint32_t opcode = OPCODE)
{
    return mts_send(handle, node, sap, opcode, text.data(), static_cast<std::uint32_t>(text.size()), 0, 0, 0);
}

inline std::size_t open_descriptors()
{
    return static_cast<std::size_t>(
        std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}

// Has this process watch what may be changed: it takes a descriptor when it has asked often, and then no more.
inline void watch_from_now_on()
{
    watched_file file("transport/faults");
    for (unsigned call = 0; call < 200; ++call)
        (void)file.may_have_changed();
}

inline bool eventually(const std::function<bool()> &condition)
{
    const auto deadline = steady::now() + 10s;
    while (!condition()) {
        if (steady::now() > deadline)
            return false;
        ::usleep(2000);
    }
    return true;
}

// A process of the chassis: binds an endpoint, says so, and does its work.
class card_process
{
public:
    using work = std::function<int(std::int32_t handle)>;

    card_process(const std::string &chassis, unsigned slot, std::int32_t sap, const work &job, bool orderly = false)
    {
        int ready[2];
        if (::pipe2(ready, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe");
        pid_ = ::fork();
        if (pid_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::close(ready[0]);
            const bool up = chassis_attach(chassis, slot) == 0;
            const std::int32_t handle = up ? bind_endpoint(sap) : -1;
            const char state = handle >= 0 ? '1' : '0';
            if (::write(ready[1], &state, 1) != 1)
                ::_exit(98);
            ::close(ready[1]);
            const int result = handle >= 0 ? job(handle) : 99;
            if (orderly)
                std::exit(result);
            ::_exit(result);
        }
        ::close(ready[1]);
        char state = '0';
        bound_ = ::read(ready[0], &state, 1) == 1 && state == '1';
        ::close(ready[0]);
    }
    card_process(const card_process &) = delete;
    card_process &operator=(const card_process &) = delete;
    ~card_process() { kill(); }

    bool bound() const { return bound_; }

    int exit_code()
    {
        int status = 0;
        const pid_t ended = ::waitpid(pid_, &status, 0);
        pid_ = -1;
        return ended > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    void signal(int number) const { ::kill(pid_, number); }

    void kill()
    {
        if (pid_ <= 0)
            return;
        ::kill(pid_, SIGKILL);
        (void)exit_code();
    }

private:
    pid_t pid_ = -1;
    bool bound_ = false;
};

inline int sleep_for_ever(std::int32_t)
{
    for (;;)
        ::pause();
}

// Answers every request with its body.
inline int echo_for_ever(std::int32_t handle)
{
    for (;;) {
        const held_message message = received(handle, 60);
        if (!message)
            continue;
        const auto *payload = static_cast<const std::uint8_t *>(mts_payload_get(message.get()));
        cmi_response(payload + MTS_REQUEST_HEADER_BYTES,
                     mts_payload_length(message.get()) - MTS_REQUEST_HEADER_BYTES, handle, message.get(), 0);
    }
}

inline void ignore_alarm(int) {}

// Raises SIGALRM again and again while it lives.
class interruptions
{
public:
    interruptions()
    {
        struct sigaction action {
        };
        action.sa_handler = ignore_alarm;
        ::sigaction(SIGALRM, &action, &before_);
        set(50000);
    }
    ~interruptions()
    {
        set(0);
        ::sigaction(SIGALRM, &before_, nullptr);
    }

private:
    static void set(int microseconds)
    {
        const itimerval every = {{0, microseconds}, {0, microseconds}};
        ::setitimer(ITIMER_REAL, &every, nullptr);
    }
    struct sigaction before_;
};

class Transport : public ::testing::Test
{
protected:
    void SetUp() override
    {
        fs::create_directories(chassis_ + "/inventory/1");
        fs::create_directories(chassis_ + "/inventory/2");
        fs::create_directories(chassis_ + "/inventory/4");
        std::ofstream(chassis_ + "/inventory/1/kind") << "1\n";
        std::ofstream(chassis_ + "/inventory/2/kind") << "2\n";
        std::ofstream(chassis_ + "/inventory/4/kind") << "4\n";
        attach(1);
        handle_ = bind_endpoint(DAEMON_SAP);
        ASSERT_GE(handle_, 0);
    }

    void TearDown() override { mts_unbind(handle_); }

    void attach(unsigned slot) const { ASSERT_EQ(chassis_attach(chassis_, slot), 0); }

    std::string file_of(std::uint32_t node, std::uint32_t sap) const
    {
        char name[32];
        std::snprintf(name, sizeof name, "/mts/%08x.%08x", node, sap);
        return chassis_ + name;
    }

    // A socket connected to an endpoint, to send it whatever one likes.
    unique_fd raw_socket_to(std::uint32_t node, std::uint32_t sap) const
    {
        unique_fd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        file_of(node, sap).copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(::connect(socket.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        return socket;
    }

    std::int32_t request(std::uint32_t node, std::string &body_and_answer, std::uint32_t wait_s = 10) const
    {
        auto length = static_cast<std::uint32_t>(body_and_answer.size());
        void *response = nullptr;
        const std::int32_t result = cmi_remote_req_resp(OPCODE, REQUEST_TYPE, body_and_answer.data(), &response,
                                                        &length, "ABCD", "ABCD", DAEMON_SAP, node, handle_, wait_s);
        const int failure = errno;
        body_and_answer.assign(static_cast<const char *>(response), response != nullptr ? length : 0);
        std::free(response);
        errno = failure;
        return result;
    }

    const temporary_folder folder_{"chassis-transport"};
    const std::string &chassis_ = folder_.path();
    std::int32_t handle_ = -1;
};

} // namespace chassis_test
