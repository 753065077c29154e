// The chassis's message transport: endpoints, messages and listeners, between real processes.
#include <gtest/gtest.h>

#include <algorithm>
#include <sys/stat.h>
#include <tuple>

#include "socket_datagram.h"
#include "transport_fixture.h"

using namespace chassis_test;

namespace
{

TEST_F(Transport, GivesEachCardTheNodeOfItsKind)
{
    EXPECT_EQ(mts_node_of_slot(1), 0x101u);
    EXPECT_EQ(mts_node_of_slot(2), 0x202u);
    EXPECT_EQ(mts_node_of_slot(4), 0x401u);
    EXPECT_EQ(mts_node_of_slot(9), 0x902u);
    EXPECT_EQ(mts_node_of_slot(0), 1u);
    mts_address_t own{};
    ASSERT_EQ(mts_own_address(handle_, &own), 0);
    EXPECT_EQ(own.node, CARD_1);
    EXPECT_EQ(own.sap, DAEMON_SAP);
}

TEST_F(Transport, RefusesAnAddressWhoseProcessLives)
{
    EXPECT_EQ(bind_endpoint(DAEMON_SAP), -1);
    EXPECT_EQ(errno, EADDRINUSE);
    const card_process second(chassis_, 1, DAEMON_SAP, sleep_for_ever);
    EXPECT_FALSE(second.bound());
}

TEST_F(Transport, TakesOverTheAddressOfAKilledProcess)
{
    card_process first(chassis_, 2, DAEMON_SAP, sleep_for_ever);
    ASSERT_TRUE(first.bound());
    first.kill();
    ASSERT_TRUE(fs::exists(file_of(CARD_2, DAEMON_SAP)));
    EXPECT_FALSE(mts_is_bound(CARD_2, DAEMON_SAP));
    const card_process second(chassis_, 2, DAEMON_SAP, sleep_for_ever);
    EXPECT_TRUE(second.bound());
    EXPECT_TRUE(mts_is_bound(CARD_2, DAEMON_SAP));
}

TEST_F(Transport, LetsOnlyOneOfManyTakeOverADeadAddress)
{
    card_process(chassis_, 2, DAEMON_SAP, sleep_for_ever).kill();
    std::vector<std::unique_ptr<card_process>> rivals;
    int go[2];
    ASSERT_EQ(::pipe2(go, O_CLOEXEC), 0);
    std::vector<pid_t> children;
    for (int rival = 0; rival < 8; ++rival) {
        const pid_t child = ::fork();
        if (child == 0) {
            ::close(go[1]);
            char none;
            (void)!::read(go[0], &none, 1); // returns for all when the test closes its end
            const bool won = chassis_attach(chassis_, 2) == 0 && bind_endpoint(DAEMON_SAP) >= 0;
            if (!won)
                ::_exit(errno == EADDRINUSE ? 0 : 2);
            ::usleep(500000); // outlives the others' attempts
            ::_exit(1);
        }
        children.push_back(child);
    }
    ::close(go[0]);
    ::close(go[1]);
    int winners = 0;
    for (const pid_t child : children) {
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status));
        ASSERT_NE(WEXITSTATUS(status), 2);
        winners += WEXITSTATUS(status);
    }
    EXPECT_EQ(winners, 1);
}

TEST_F(Transport, RemovesItsFilesAtAnOrderlyExit)
{
    card_process card(
        chassis_, 2, DAEMON_SAP,
        [&](std::int32_t handle) {
            if (mts_listen(handle, OPCODE) != 0 || !fs::exists(file_of(CARD_2, DAEMON_SAP)))
                return 1;
            return 0;
        },
        true);
    EXPECT_EQ(card.exit_code(), 0);
    std::vector<std::string> left;
    for (const auto &entry : fs::directory_iterator(chassis_ + "/mts"))
        left.push_back(entry.path().filename());
    std::sort(left.begin(), left.end());
    EXPECT_EQ(left, (std::vector<std::string>{"00000101.000003f2", "lock"}));
}

TEST_F(Transport, ChoosesAnotherFreeSapEachTime)
{
    mts_address_t first{}, second{};
    const std::int32_t first_handle = bind_endpoint(-1);
    ASSERT_EQ(mts_own_address(first_handle, &first), 0);
    mts_unbind(first_handle);
    const std::int32_t second_handle = bind_endpoint(-1);
    ASSERT_EQ(mts_own_address(second_handle, &second), 0);
    mts_unbind(second_handle);
    EXPECT_GE(first.sap, 0x10000u);
    EXPECT_NE(first.sap, second.sap);
    EXPECT_EQ(mts_send(second_handle, CARD_1, DAEMON_SAP, 1, nullptr, 0, 0, 0, 0), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(Transport, SweepsAwayTheEphemeralEndpointsOfKilledTools)
{
    card_process(chassis_, 0, -1, sleep_for_ever).kill();
    const std::string left = file_of(1, 0x10000);
    ASSERT_TRUE(fs::exists(left));
    for (int round = 0; round < 70; ++round)
        mts_unbind(bind_endpoint(-1));
    EXPECT_FALSE(fs::exists(left));
    EXPECT_TRUE(mts_is_bound(CARD_1, DAEMON_SAP));
}

TEST_F(Transport, BindsSocketsThatAreClosedToOthersWhateverTheUmask)
{
    const mode_t before = ::umask(0);
    const std::int32_t handle = bind_endpoint(77);
    ::umask(before);
    struct stat status {
    };
    ASSERT_EQ(::stat(file_of(CARD_1, 77).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    EXPECT_TRUE(mts_is_bound(CARD_1, 77));
    mts_unbind(handle);
}

TEST_F(Transport, RefusesArgumentsThatMeanNothing)
{
    EXPECT_EQ(mts_bind(2, 5, BIND_OPTIONS, "x"), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(mts_bind(1, -2, BIND_OPTIONS, "x"), -1);
    EXPECT_EQ(errno, EINVAL);
    mts_message_t *message = nullptr;
    EXPECT_EQ(receive(12345, &message, 0), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(mts_send(handle_, CARD_1, DAEMON_SAP, 1, nullptr, 4, 0, 0, 0), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(mts_drop(handle_, nullptr), -1);
    mts_address_t address;
    EXPECT_EQ(mts_saddr_get(nullptr, &address), -1);
}

TEST_F(Transport, PausesBeforeItReportsABrokenEndpointWithinTheWaitLimit)
{
    const unique_fd file(::open("/dev/null", O_RDWR | O_CLOEXEC));
    ASSERT_GE(::dup3(file.get(), mts_descriptor(handle_), O_CLOEXEC), 0); // no socket any more
    for (const auto &[wait_s, least, most] :
         {std::tuple{5U, 900ms, 4000ms}, std::tuple{1U, 900ms, 4000ms}, std::tuple{0U, 0ms, 500ms}}) {
        mts_message_t *message = nullptr;
        const auto start = steady::now();
        EXPECT_EQ(receive(handle_, &message, wait_s), -1);
        EXPECT_EQ(errno, ENOTSOCK);
        EXPECT_GE(steady::now() - start, least) << "wait limit " << wait_s;
        EXPECT_LE(steady::now() - start, most) << "wait limit " << wait_s;
    }
}

TEST_F(Transport, LeavesTheWorkingDirectoryWhereItWas)
{
    const fs::path before = fs::current_path();
    mts_unbind(bind_endpoint(-1));
    EXPECT_EQ(send_text(handle_, CARD_1, DAEMON_SAP, "x"), 0);
    EXPECT_EQ(send_text(handle_, CARD_2, DAEMON_SAP, "x"), -1);
    EXPECT_EQ(fs::current_path(), before);
}

TEST_F(Transport, ReachesTheChassisFromInsideAnotherRoot)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root may change the root";
    fs::create_directories(chassis_ + "/root");
    const pid_t child = ::fork();
    if (child == 0) {
        const bool inside =
            chassis_attach(chassis_, 2) == 0 && ::chroot((chassis_ + "/root").c_str()) == 0 && ::chdir("/") == 0;
        const std::int32_t handle = inside ? bind_endpoint(-1) : -1;
        ::_exit(handle >= 0 && send_text(handle, CARD_1, DAEMON_SAP, "from inside") == 0 ? 0 : 1);
    }
    const held_message message = received(handle_);
    ASSERT_TRUE(message);
    EXPECT_EQ(text_of(message.get()), "from inside");
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

TEST_F(Transport, LeavesTheParentsEndpointToTheParent)
{
    const pid_t child = ::fork();
    if (child == 0) {
        mts_message_t *message = nullptr;
        const bool closed = receive(handle_, &message, 0) == -1 && errno == EBADF;
        const std::int32_t own = bind_endpoint(-1);
        ::_exit(closed && own >= 0 && own != handle_ && send_text(own, CARD_1, DAEMON_SAP, "child") == 0 ? 0 : 1);
    }
    const held_message message = received(handle_);
    ASSERT_TRUE(message);
    EXPECT_EQ(text_of(message.get()), "child");
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(mts_is_bound(CARD_1, DAEMON_SAP));
}

TEST_F(Transport, EndsTheParentsEndpointWithTheParentThoughItsChildLives)
{
    int life[2];
    ASSERT_EQ(::pipe2(life, O_CLOEXEC), 0);
    card_process parent(chassis_, 2, DAEMON_SAP, [&](std::int32_t) {
        if (::fork() == 0) {
            ::close(life[1]);
            char none;
            (void)!::read(life[0], &none, 1); // lives as long as the test
            ::_exit(0);
        }
        return 0;
    });
    EXPECT_EQ(parent.exit_code(), 0);
    EXPECT_TRUE(eventually([] { return !mts_is_bound(CARD_2, DAEMON_SAP); }));
    EXPECT_EQ(send_text(handle_, CARD_2, DAEMON_SAP, "x"), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    ::close(life[0]);
    ::close(life[1]);
}

TEST_F(Transport, GivesNoDescriptorToAProgramThatIsRun)
{
    EXPECT_EQ(send_text(handle_, CARD_1, DAEMON_SAP, "x"), 0); // a connection is kept now
    FILE *program = ::popen("for f in /proc/self/fd/*; do readlink $f; done", "re");
    ASSERT_NE(program, nullptr);
    std::string seen;
    char line[512];
    while (std::fgets(line, sizeof line, program) != nullptr)
        seen += line;
    ::pclose(program);
    EXPECT_EQ(seen.find(chassis_), std::string::npos) << seen;
    struct stat facts;
    ASSERT_EQ(::fstat(mts_descriptor(handle_), &facts), 0);
    EXPECT_EQ(seen.find("socket:[" + std::to_string(facts.st_ino) + "]"), std::string::npos) << seen;
}

TEST_F(Transport, DeliversAMessageWithItsSenderAndZerosBehindIt)
{
    card_process sender(chassis_, 2, 77,
                        [](std::int32_t handle) { return send_text(handle, CARD_1, DAEMON_SAP, "hello", 4795); });
    const held_message message = received(handle_);
    ASSERT_TRUE(message);
    EXPECT_EQ(mts_opc_get(message.get()), 4795u);
    mts_address_t from{};
    EXPECT_EQ(mts_saddr_get(message.get(), &from), 0);
    EXPECT_EQ(from.node, CARD_2);
    EXPECT_EQ(from.sap, 77u);
    EXPECT_EQ(text_of(message.get()), "hello");
    auto *payload = static_cast<std::uint8_t *>(mts_payload_get(message.get()));
    for (std::size_t offset = 5; offset < MTS_READABLE_PAYLOAD_BYTES; ++offset)
        ASSERT_EQ(payload[offset], 0) << offset;
    std::memset(payload, 0xff, MTS_READABLE_PAYLOAD_BYTES);
    EXPECT_EQ(sender.exit_code(), 0);
}

TEST_F(Transport, DeliversAnEmptyMessage)
{
    ASSERT_EQ(mts_send(handle_, CARD_1, DAEMON_SAP, 4792, nullptr, 0, 0, 0, 0), 0);
    const held_message message = received(handle_);
    ASSERT_TRUE(message);
    EXPECT_EQ(mts_payload_length(message.get()), 0u);
    ASSERT_NE(mts_payload_get(message.get()), nullptr);
}

TEST_F(Transport, DeliversEverySizeUpToTheLargestUnchanged)
{
    const std::size_t descriptors = open_descriptors();
    for (const std::uint32_t bytes : {1u, 111u, 641u, INLINE_PAYLOAD_BYTES - 1, INLINE_PAYLOAD_BYTES,
                                      INLINE_PAYLOAD_BYTES + 1, 5'000'001u, MTS_MAX_PAYLOAD_BYTES}) {
        std::string payload(bytes, '\0');
        for (std::size_t offset = 0; offset < bytes; ++offset)
            payload[offset] = static_cast<char>(offset * 31 + offset / 4099);
        ASSERT_EQ(send_text(handle_, CARD_1, DAEMON_SAP, payload), 0) << bytes << std::strerror(errno);
        const held_message message = received(handle_);
        ASSERT_TRUE(message) << bytes;
        ASSERT_EQ(mts_payload_length(message.get()), bytes);
        auto *data = static_cast<char *>(mts_payload_get(message.get()));
        ASSERT_EQ(std::memcmp(data, payload.data(), bytes), 0) << bytes;
        ASSERT_EQ(data[bytes], 0);
        data[bytes - 1] = 'w';
    }
    EXPECT_EQ(open_descriptors(), descriptors + 1); // the connection
}

TEST_F(Transport, RefusesAMessageBeyondTheLargest)
{
    const std::string payload(MTS_MAX_PAYLOAD_BYTES + 1, 'x');
    EXPECT_EQ(send_text(handle_, CARD_1, DAEMON_SAP, payload), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_EQ(send_text(handle_, MTS_NODE_LISTENERS, 0, payload), -1);
    EXPECT_EQ(errno, EMSGSIZE);
}

TEST_F(Transport, KeepsTheOrderOfMessages)
{
    for (int number = 0; number < 8; ++number)
        ASSERT_EQ(send_text(handle_, CARD_1, DAEMON_SAP, std::to_string(number)), 0);
    for (int number = 0; number < 8; ++number) {
        const held_message message = received(handle_);
        ASSERT_TRUE(message);
        EXPECT_EQ(text_of(message.get()), std::to_string(number));
    }
}

TEST_F(Transport, RefusesToSendWhereNobodyIs)
{
    EXPECT_EQ(send_text(handle_, CARD_2, DAEMON_SAP, "x"), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(send_text(handle_, 0, DAEMON_SAP, "x"), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST_F(Transport, FindsTheSuccessorOfADeadReceiver)
{
    const auto confirm = [](std::int32_t handle) {
        const held_message message = received(handle);
        if (!message || send_text(handle, CARD_1, DAEMON_SAP, "got " + text_of(message.get())) != 0)
            return 1;
        return 0;
    };
    card_process first(chassis_, 2, DAEMON_SAP, confirm);
    ASSERT_EQ(send_text(handle_, CARD_2, DAEMON_SAP, "first"), 0);
    ASSERT_EQ(first.exit_code(), 0);
    EXPECT_EQ(text_of(received(handle_).get()), "got first");

    card_process second(chassis_, 2, DAEMON_SAP, confirm);
    ASSERT_TRUE(second.bound());
    ASSERT_EQ(send_text(handle_, CARD_2, DAEMON_SAP, "second"), 0) << std::strerror(errno);
    ASSERT_EQ(second.exit_code(), 0);
    EXPECT_EQ(text_of(received(handle_).get()), "got second");
    EXPECT_EQ(send_text(handle_, CARD_2, DAEMON_SAP, "third"), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST_F(Transport, KeepsABoundedNumberOfConnections)
{
    std::vector<std::int32_t> handles;
    for (int count = 0; count < 50; ++count)
        handles.push_back(bind_endpoint(-1));
    watch_from_now_on();
    const std::size_t before = open_descriptors();
    for (int round = 0; round < 2; ++round) {
        for (const std::int32_t other : handles) {
            mts_address_t address{};
            ASSERT_EQ(mts_own_address(other, &address), 0);
            ASSERT_EQ(send_text(handle_, address.node, address.sap, "x"), 0);
            EXPECT_TRUE(received(other));
        }
    }
    EXPECT_LE(open_descriptors(), before + 32);
    for (const std::int32_t other : handles)
        mts_unbind(other);
}

TEST_F(Transport, DoesNotWaitForEverForAFullReceiver)
{
    const std::int32_t deaf = bind_endpoint(500);
    int delivered = 0;
    auto start = steady::now();
    while (delivered < 1000 && send_text(handle_, CARD_1, 500, std::to_string(delivered)) == 0)
        ++delivered;
    EXPECT_EQ(errno, MTS_ERRNO_TIMED_OUT);
    ASSERT_GT(delivered, 0);
    ASSERT_LT(delivered, 1000);
    EXPECT_GE(steady::now() - start, 800ms);
    EXPECT_LT(steady::now() - start, 2s);

    start = steady::now();
    for (int again = 0; again < 20; ++again) {
        EXPECT_EQ(send_text(handle_, CARD_1, 500, "lost"), -1);
        EXPECT_EQ(errno, MTS_ERRNO_TIMED_OUT);
    }
    EXPECT_LT(steady::now() - start, 1s);

    for (int number = 0; number < delivered; ++number)
        EXPECT_EQ(text_of(received(deaf).get()), std::to_string(number));
    EXPECT_EQ(send_text(handle_, CARD_1, 500, "again"), 0);
    EXPECT_EQ(text_of(received(deaf).get()), "again");
    mts_unbind(deaf);
}

TEST_F(Transport, WaitsForAReceiverThatMakesRoomInTime)
{
    card_process slow(chassis_, 2, DAEMON_SAP, [](std::int32_t handle) {
        ::raise(SIGSTOP);
        for (int number = 0; number < 100; ++number) {
            const held_message message = received(handle);
            if (!message || text_of(message.get()) != std::to_string(number))
                return 1;
        }
        return 0;
    });
    const pid_t waker = ::fork();
    if (waker == 0) {
        ::usleep(500000); // the receiver stands still meanwhile
        slow.signal(SIGCONT);
        ::_exit(0);
    }
    for (int number = 0; number < 100; ++number)
        ASSERT_EQ(send_text(handle_, CARD_2, DAEMON_SAP, std::to_string(number)), 0) << number;
    ::waitpid(waker, nullptr, 0);
    slow.signal(SIGCONT);
    EXPECT_EQ(slow.exit_code(), 0);
}

TEST_F(Transport, NoticesTheDeathOfTheFullReceiverItWaitsFor)
{
    card_process deaf(chassis_, 2, DAEMON_SAP, sleep_for_ever);
    const pid_t killer = ::fork();
    if (killer == 0) {
        ::usleep(300000);
        deaf.signal(SIGKILL);
        ::_exit(0);
    }
    int result = 0;
    const auto start = steady::now();
    for (int count = 0; count < 1000 && result == 0; ++count)
        result = send_text(handle_, CARD_2, DAEMON_SAP, "x");
    EXPECT_EQ(result, -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_LT(steady::now() - start, 1900ms);
    ::waitpid(killer, nullptr, 0);
}

TEST_F(Transport, EndsTheWaitAtItsLimit)
{
    mts_message_t *message = nullptr;
    auto start = steady::now();
    EXPECT_EQ(receive(handle_, &message, 0), -1);
    EXPECT_EQ(errno, 62);
    EXPECT_LT(steady::now() - start, 500ms);
    start = steady::now();
    EXPECT_EQ(receive(handle_, &message, 1), -1);
    EXPECT_EQ(errno, 62);
    EXPECT_GE(steady::now() - start, 1s);
    EXPECT_LT(steady::now() - start, 2s);
    EXPECT_EQ(message, nullptr);
}

TEST_F(Transport, EndsTheWaitAtASignal)
{
    const interruptions alarms;
    mts_message_t *message = nullptr;
    const auto start = steady::now();
    EXPECT_EQ(receive(handle_, &message, 30), -1);
    EXPECT_EQ(errno, 4);
    EXPECT_LT(steady::now() - start, 5s);
}

TEST_F(Transport, DoesNotWaitLongerBecauseOfRubbish)
{
    const card_process pest(chassis_, 0, -1, [&](std::int32_t) {
        const unique_fd socket = raw_socket_to(CARD_1, DAEMON_SAP);
        while (::send(socket.get(), "rubbish", 7, 0) == 7)
            continue;
        return 1;
    });
    mts_message_t *message = nullptr;
    for (const std::uint32_t limit : {1u, 0u}) {
        const auto start = steady::now();
        EXPECT_EQ(receive(handle_, &message, limit), -1);
        EXPECT_EQ(errno, 62);
        EXPECT_GE(steady::now() - start, std::chrono::seconds(limit));
        EXPECT_LT(steady::now() - start, std::chrono::seconds(limit) + 1s);
    }
}

TEST_F(Transport, DeliversToEveryListenerOfTheOpcodeAndToNobodyElse)
{
    const std::int32_t both = bind_endpoint(-1);
    const std::int32_t other = bind_endpoint(-1);
    const std::int32_t none = bind_endpoint(-1);
    ASSERT_EQ(mts_listen(both, 4792), 0);
    ASSERT_EQ(mts_listen(both, 4793), 0);
    ASSERT_EQ(mts_listen(both, 4793), 0);
    ASSERT_EQ(mts_listen(other, 4792), 0);
    EXPECT_EQ(send_text(handle_, MTS_NODE_LISTENERS, 99, "to both", 4792), 0);
    EXPECT_EQ(send_text(handle_, MTS_NODE_LISTENERS, 0, "to one", 4793), 0);
    EXPECT_EQ(text_of(received(both, 0).get()), "to both");
    EXPECT_EQ(text_of(received(both, 0).get()), "to one");
    EXPECT_EQ(text_of(received(other, 0).get()), "to both");
    EXPECT_FALSE(received(both, 0));
    EXPECT_FALSE(received(other, 0));
    EXPECT_FALSE(received(none, 0));
    mts_unbind(both);
    mts_unbind(other);
    mts_unbind(none);
    EXPECT_EQ(send_text(handle_, MTS_NODE_LISTENERS, 0, "to nobody", 4792), 0);
}

TEST_F(Transport, RemovesTheMarkersOfKilledListeners)
{
    card_process listener(chassis_, 0, 600, [](std::int32_t handle) {
        if (mts_listen(handle, 4792) != 0 || send_text(handle, CARD_1, DAEMON_SAP, "listening") != 0)
            return 1;
        return sleep_for_ever(handle);
    });
    ASSERT_TRUE(received(handle_));
    const std::string marker = chassis_ + "/mts/listen.000012b8.00000001.00000258";
    ASSERT_TRUE(fs::exists(marker));
    listener.kill();
    EXPECT_EQ(send_text(handle_, MTS_NODE_LISTENERS, 0, "x", 4792), 0);
    EXPECT_FALSE(fs::exists(marker));
}

TEST_F(Transport, DoesNotInheritTheMarkersOfADeadPredecessor)
{
    card_process listener(chassis_, 0, 600, [](std::int32_t handle) {
        if (mts_listen(handle, 4792) != 0 || send_text(handle, CARD_1, DAEMON_SAP, "listening") != 0)
            return 1;
        return sleep_for_ever(handle);
    });
    ASSERT_TRUE(received(handle_));
    listener.kill();
    const card_process successor(chassis_, 0, 600, sleep_for_ever);
    ASSERT_TRUE(successor.bound());
    EXPECT_FALSE(fs::exists(chassis_ + "/mts/listen.000012b8.00000001.00000258"));
}

} // namespace
