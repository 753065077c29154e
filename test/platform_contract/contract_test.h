// What the tests of the contract share.
#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <sys/types.h>

#include "contract_surroundings.h"
#include "endpoints.h"
#include "mts.h"
#include "peer.h"
#include "result_code.h"

// Skips the test when the surroundings cannot have something.
#define NEEDS(surroundings_call)                                                                                   \
    do {                                                                                                           \
        if (const char *needs_reason = (surroundings_call); needs_reason != nullptr)                               \
            GTEST_SKIP() << needs_reason;                                                                          \
    } while (false)

constexpr std::uint32_t TEST_OPCODE = 4791; // one of the daemon's: transports may know the opcodes that they carry

inline double seconds_of(const std::function<void()> &work)
{
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The endpoint of the process that runs the tests, at contract_sap(0): bound once, as there is no way to give one
// back.
std::int32_t own_endpoint();
std::uint32_t own_node();

struct drop_message {
    void operator()(mts_message_t *message) const { (void)mts_drop(own_endpoint(), message); }
};
using held_message = std::unique_ptr<mts_message_t, drop_message>;

// The next message, or null with errno.
held_message receive(std::uint32_t wait_s, std::int32_t handle = own_endpoint());
// Drops what earlier tests have left.
void drop_waiting_messages();

// First bytes of a message's payload.
std::string payload_of(const held_message &message, std::size_t bytes);

// Prepares the lock service for this process, once. The result of modlock_init.
std::int32_t prepare_locks();

// Register the debug module and the syslog facility of this process, once, as the daemon does at its start. The
// platform's results.
std::int32_t register_debug();
std::int32_t register_syslog();

// Runs something in a forked child; its exit status, or -1 when a signal ended it. A child that does not end within
// a minute, because a call blocks, is killed: CHILD_WAS_STUCK.
constexpr int CHILD_WAS_STUCK = -2;
int exit_status_of_child(const std::function<int()> &work);

// Descriptors that this process has open.
std::set<int> open_descriptors();
// Those that were open before the first call of the platform: not the platform's.
const std::set<int> &foreign_descriptors();
void note_foreign_descriptors();

// A file of the scratch folder, removed with the object.
class scratch_file
{
public:
    explicit scratch_file(const std::string &name);
    scratch_file(const std::string &name, const std::string &content);
    scratch_file(const scratch_file &) = delete;
    scratch_file &operator=(const scratch_file &) = delete;
    ~scratch_file();

    const char *path() const { return path_.c_str(); }
    std::string content() const;

private:
    std::string path_;
};

std::string content_of_file(const std::string &path);

// A condition of the surroundings for as long as the object lives.
class held_condition
{
public:
    explicit held_condition(contract_condition condition)
        : condition_(condition),
          reason_(contract_set_condition(condition, 1))
    {
    }
    held_condition(const held_condition &) = delete;
    held_condition &operator=(const held_condition &) = delete;
    ~held_condition() { end(); }

    const char *reason() const { return reason_; }
    void end()
    {
        if (reason_ == nullptr)
            (void)contract_set_condition(condition_, 0);
        reason_ = "ended";
    }

private:
    contract_condition condition_;
    const char *reason_;
};

// Tests that need another process; SetUp starts it and binds its endpoint, at contract_sap(1).
class PeerTest : public testing::Test
{
protected:
    void start(std::unique_ptr<peer_process> (*starter)(std::string &));

    std::uint32_t peer_sap() const { return contract_sap(1); }

    std::unique_ptr<peer_process> peer_;
    std::uint32_t peer_node_ = 0;
};

class SameCardTest : public PeerTest
{
protected:
    void SetUp() override { start(start_peer_on_this_card); }
};

class OtherCardTest : public PeerTest
{
protected:
    void SetUp() override { start(start_peer_on_other_card); }
};
