// platform/mts.h: endpoints, messages, waiting, rejections.
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>
#include <vector>

#include "contract_test.h"
#include "hex.h"

namespace
{

constexpr std::uint32_t QUEUE_PATIENCE_MESSAGES = 100'000;

// Exit statuses of children whose call is not what it should be; no errno is as large.
constexpr int UNBOUND = 201;
constexpr int UNBROKEN = 202;
constexpr int ENDLESS = 203;
constexpr int TOO_LATE = 204;

// A receive loop like the daemon's, over an endpoint that fails at every call.
constexpr auto BROKEN_FOR = std::chrono::seconds(4);
constexpr unsigned BROKEN_CALLS = 10; // with a pause of about a second: 4
constexpr std::uint32_t BROKEN_WAIT_S = 5;
constexpr double BROKEN_LATEST_S = 10;

std::int32_t send(std::uint32_t node, std::uint32_t sap, const void *payload, std::uint32_t length)
{
    return mts_send(own_endpoint(), node, sap, TEST_OPCODE, payload, length, 0, 0, 0);
}

std::string send_command(const std::string &payload)
{
    return "send " + std::to_string(own_node()) + " " + std::to_string(contract_sap(0)) + " " +
           std::to_string(TEST_OPCODE) + " " + hex_of(payload);
}

volatile std::sig_atomic_t alarms_left = 0;

void every_200_ms(bool on)
{
    const timeval pause = {0, on ? 200'000 : 0};
    const itimerval timer = {pause, pause};
    ::setitimer(ITIMER_REAL, &timer, nullptr);
}

void count_alarm(int)
{
    alarms_left = alarms_left - 1;
    if (alarms_left <= 0)
        every_200_ms(false); // a wait that begins anew after each has to end some time
}

// Raises SIGALRM ten times, without system calls being restarted.
class interruptions
{
public:
    interruptions()
    {
        struct sigaction action {
        };
        action.sa_handler = count_alarm;
        ::sigaction(SIGALRM, &action, &before_);
        alarms_left = 10;
        every_200_ms(true);
    }
    ~interruptions()
    {
        every_200_ms(false);
        ::sigaction(SIGALRM, &before_, nullptr);
    }

private:
    struct sigaction before_ {
    };
};

// Puts something that receives nothing in the place of all that a call has opened. false when it has opened
// nothing.
bool break_descriptors(const std::set<int> &before)
{
    const int nothing = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    bool broken = false;
    for (const int descriptor : open_descriptors()) {
        if (descriptor != nothing && !before.contains(descriptor))
            broken = ::dup3(nothing, descriptor, O_CLOEXEC) >= 0 || broken;
    }
    return broken;
}

// In a child: 0 when the loop was held back, or one of the statuses above.
int receive_from_broken_endpoint()
{
    const std::set<int> before = open_descriptors();
    const std::int32_t handle = mts_bind(1, -1, BIND_OPTIONS, "broken");
    if (handle < 0)
        return UNBOUND;
    if (!break_descriptors(before))
        return UNBROKEN;
    const auto end = std::chrono::steady_clock::now() + BROKEN_FOR;
    for (unsigned calls = 0; std::chrono::steady_clock::now() < end; ++calls) {
        if (calls == BROKEN_CALLS)
            return ENDLESS;
        const std::uint32_t options[10] = {1, 0, BROKEN_WAIT_S};
        mts_message_t *message = nullptr;
        std::int32_t result = 0;
        int failure = 0;
        const double waited_s = seconds_of([&] {
            result = mts_recv(handle, &message, options);
            failure = errno;
        });
        if (waited_s > BROKEN_LATEST_S)
            return TOO_LATE;
        if (result == 0 || failure == MTS_ERRNO_TIMED_OUT)
            return UNBROKEN;
    }
    return 0;
}

// In a child: the errno of the first message that was not taken, or one of the statuses above.
int fill_queue(std::uint32_t node, std::uint32_t sap)
{
    const std::int32_t handle = mts_bind(1, -1, BIND_OPTIONS, "sender");
    if (handle < 0)
        return UNBOUND;
    const std::string payload(4096, 'f');
    for (std::uint32_t sent = 0; sent < QUEUE_PATIENCE_MESSAGES; ++sent) {
        if (mts_send(handle, node, sap, TEST_OPCODE, payload.data(), 4096, 0, 0, 0) != 0)
            return errno;
    }
    return ENDLESS;
}

class Mts : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_GE(own_endpoint(), 0) << "no endpoint can be bound: errno " << errno;
        drop_waiting_messages();
    }
};

using MtsBind = Mts;
using MtsBindBesideAnother = SameCardTest;
using MtsRecv = Mts;
using MtsMessage = SameCardTest;
using MtsSend = SameCardTest;
using MtsNode = OtherCardTest;

} // namespace

TEST_F(MtsBind, GivesAnotherHandleForEachEndpoint)
{
    const std::int32_t first = mts_bind(BIND_KIND, ANY_SAP, BIND_OPTIONS, "first");
    const std::int32_t second = mts_bind(BIND_KIND, ANY_SAP, BIND_OPTIONS, "second");
    EXPECT_GE(first, 0);
    EXPECT_GE(second, 0);
    EXPECT_NE(first, second);
}

TEST_F(MtsBindBesideAnother, ChoosesSapsThatNobodyHas)
{
    std::vector<std::uint32_t> saps;
    for (unsigned endpoint = 0; endpoint < 2; ++endpoint) {
        const std::int32_t handle = mts_bind(BIND_KIND, ANY_SAP, BIND_OPTIONS, "chosen");
        ASSERT_EQ(mts_send(handle, peer_node_, peer_sap(), TEST_OPCODE, "x", 1, 0, 0, 0), 0);
        unsigned opcode = 0;
        unsigned node = 0;
        unsigned sap = 0;
        ASSERT_EQ(std::sscanf(peer_->ask("receive 0 1").c_str(), "message %u %u %u", &opcode, &node, &sap), 3);
        saps.push_back(sap);
    }
    EXPECT_NE(saps[0], saps[1]);
    EXPECT_NE(saps[0], contract_sap(0));
    EXPECT_NE(saps[0], peer_sap());
}

TEST_F(MtsBindBesideAnother, FailsWithEaddrinuseWhenALivingEndpointHasTheSap)
{
    errno = 0;
    EXPECT_EQ(mts_bind(BIND_KIND, static_cast<std::int32_t>(peer_sap()), BIND_OPTIONS, "second"), -1);
    EXPECT_EQ(errno, EADDRINUSE);
}

TEST_F(MtsBindBesideAnother, GivesTheSapOfAProcessThatDied)
{
    peer_->finish("die");
    std::string reason;
    const auto successor = start_peer_on_this_card(reason);
    ASSERT_TRUE(successor) << reason;
    EXPECT_EQ(successor->ask("bind " + std::to_string(peer_sap())), "ok");
}

TEST_F(MtsBindBesideAnother, GivesTheSapOfAProcessThatDiedThoughItsForkedChildLives)
{
    const std::string forked = peer_->ask("fork");
    pid_t child = 0;
    ASSERT_EQ(std::sscanf(forked.c_str(), "child %d", &child), 1) << forked;
    peer_->finish("die");
    errno = 0;
    EXPECT_EQ(send(own_node(), peer_sap(), "x", 1), -1) << "the child keeps its parent's address";
    EXPECT_EQ(errno, ECONNREFUSED);
    std::string reason;
    const auto successor = start_peer_on_this_card(reason);
    const std::string bound = successor ? successor->ask("bind " + std::to_string(peer_sap())) : "no successor";
    EXPECT_EQ(bound, "ok") << reason;
    ::kill(child, SIGKILL);
}

TEST_F(MtsBind, TakesANameOfAnyLength)
{
    EXPECT_GE(mts_bind(1, -1, BIND_OPTIONS, std::string(300, 'n').c_str()), 0) << "errno " << errno;
}

TEST_F(MtsBindBesideAnother, GivesAForkedChildAnEndpointOfItsOwn)
{
    EXPECT_EQ(exit_status_of_child([&] {
                  const std::int32_t handle = mts_bind(BIND_KIND, ANY_SAP, BIND_OPTIONS, "child");
                  return handle >= 0 && mts_send(handle, peer_node_, peer_sap(), TEST_OPCODE, "c", 1, 0, 0, 0) == 0
                             ? 0
                             : 1;
              }),
              0);
    EXPECT_EQ(peer_->ask("receive 0 1").substr(0, 8), "message ");
    EXPECT_EQ(peer_->ask(send_command("after")), "ok") << "the parent's endpoint went with the child's";
    EXPECT_TRUE(receive(10));
}

TEST_F(MtsRecv, ReturnsWithErrno62WhenTheWaitLimitPasses)
{
    mts_message_t *message = nullptr;
    const std::uint32_t options[10] = {1, 0, 1};
    std::int32_t result = 0;
    int failure = 0;
    const double waited_s = seconds_of([&] {
        result = mts_recv(own_endpoint(), &message, options);
        failure = errno;
    });
    EXPECT_NE(result, 0);
    EXPECT_EQ(failure, 62);
    EXPECT_EQ(message, nullptr) << "set on success only";
    EXPECT_GT(waited_s, 0.9);
    EXPECT_LT(waited_s, 10);
}

TEST_F(MtsRecv, ReturnsWithErrno4WhenASignalEndsTheWait)
{
    const interruptions alarms;
    errno = 0;
    EXPECT_FALSE(receive(10));
    EXPECT_EQ(errno, 4);
}

// In a child, as the endpoint is of no use afterwards. One that ends by itself is right, too: the daemon is started
// again.
TEST_F(MtsRecv, PausesBeforeItReportsAnEndpointThatIsBrokenForGood)
{
    const int status = exit_status_of_child(receive_from_broken_endpoint);
    ASSERT_NE(status, UNBOUND);
    if (status == UNBROKEN)
        GTEST_SKIP() << "an endpoint has no descriptors here that can be broken";
    EXPECT_NE(status, ENDLESS) << "the daemon's loop would take all of a processor";
    EXPECT_NE(status, TOO_LATE) << "mts_recv returns long after the wait limit";
    EXPECT_NE(status, CHILD_WAS_STUCK) << "mts_recv does not return";
}

TEST_F(MtsMessage, IsReceivedThoughItCameBeforeTheWait)
{
    ASSERT_EQ(peer_->ask(send_command("early")), "ok");
    const held_message message = receive(10);
    ASSERT_TRUE(message);
    EXPECT_EQ(payload_of(message, 5), "early");
}

TEST_F(MtsMessage, TellsItsOpcodeAndItsSender)
{
    ASSERT_EQ(peer_->ask(send_command("x")), "ok");
    const held_message message = receive(10);
    ASSERT_TRUE(message);
    mts_address_t sender = {};
    EXPECT_EQ(mts_opc_get(message.get()), TEST_OPCODE);
    EXPECT_EQ(mts_saddr_get(message.get(), &sender), 0);
    EXPECT_EQ(sender.node, own_node());
    EXPECT_EQ(sender.sap, peer_sap());
}

TEST_F(MtsMessage, HasNoSenderForNullArguments)
{
    ASSERT_EQ(peer_->ask(send_command("x")), "ok");
    const held_message message = receive(10);
    ASSERT_TRUE(message);
    mts_address_t sender = {};
    EXPECT_EQ(mts_saddr_get(message.get(), nullptr), -1);
    EXPECT_EQ(mts_saddr_get(nullptr, &sender), -1);
}

TEST_F(MtsMessage, IsReadableAndZeroBeyondTheEndOfItsPayload)
{
    ASSERT_EQ(peer_->ask(send_command("three")), "ok");
    const held_message message = receive(10);
    ASSERT_TRUE(message);
    EXPECT_EQ(payload_of(message, 641), "three" + std::string(636, '\0'));
}

TEST_F(MtsMessage, HasAPayloadAlsoWhenNothingWasSent)
{
    ASSERT_EQ(peer_->ask(send_command("")), "ok");
    const held_message message = receive(10);
    ASSERT_TRUE(message);
    ASSERT_NE(mts_payload_get(message.get()), nullptr);
    EXPECT_EQ(payload_of(message, 641), std::string(641, '\0'));
}

TEST_F(MtsMessage, HasAPayloadThatCanBeWritten)
{
    ASSERT_EQ(peer_->ask(send_command("lower")), "ok");
    const held_message message = receive(10);
    ASSERT_TRUE(message);
    std::memcpy(mts_payload_get(message.get()), "UPPER", 5);
    EXPECT_EQ(payload_of(message, 5), "UPPER");
}

TEST_F(MtsMessage, StaysValidWhileOthersComeAndGo)
{
    ASSERT_EQ(peer_->ask(send_command("kept")), "ok");
    const held_message kept = receive(10);
    ASSERT_TRUE(kept);
    for (unsigned other = 0; other < 20; ++other) {
        ASSERT_EQ(peer_->ask(send_command("other")), "ok");
        ASSERT_TRUE(receive(10));
    }
    EXPECT_EQ(payload_of(kept, 5), std::string("kept\0", 5));
}

TEST_F(MtsSend, BringsOpcodePayloadAndOwnAddress)
{
    ASSERT_EQ(send(peer_node_, peer_sap(), "hello", 5), 0);
    EXPECT_EQ(peer_->ask("receive 0 6"), "message 4791 " + std::to_string(own_node()) + " " +
                                             std::to_string(contract_sap(0)) + " 68656c6c6f00");
}

TEST_F(MtsSend, HasCopiedThePayloadWhenItReturns)
{
    std::string payload(100'000, 'a');
    ASSERT_EQ(send(peer_node_, peer_sap(), payload.data(), 100'000), 0);
    std::fill(payload.begin(), payload.end(), 'b');
    const std::string answer = peer_->ask("receive 99996 4");
    EXPECT_EQ(answer.substr(answer.rfind(' ') + 1), "61616161");
}

TEST_F(MtsSend, CarriesThePayloadsOfTheLargestFiles)
{
    std::string payload((64U << 20) + 4096U, 'x');
    payload.back() = 'e';
    peer_->tell("receive " + std::to_string(payload.size() - 2) + " 2");
    ASSERT_EQ(send(peer_node_, peer_sap(), payload.data(), static_cast<std::uint32_t>(payload.size())), 0)
        << "errno " << errno;
    const std::string answer = peer_->answer();
    EXPECT_EQ(answer.substr(answer.rfind(' ') + 1), "7865");
}

TEST_F(MtsSend, FailsWithEmsgsizeAboveThat)
{
    const std::string payload((64U << 20) + 4097U, 'x');
    errno = 0;
    EXPECT_EQ(send(peer_node_, peer_sap(), payload.data(), static_cast<std::uint32_t>(payload.size())), -1);
    EXPECT_EQ(errno, EMSGSIZE);
}

TEST_F(MtsSend, FailsWithEconnrefusedWhenNobodyHasTheAddress)
{
    errno = 0;
    EXPECT_EQ(send(own_node(), contract_sap(3), "x", 1), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST_F(MtsSend, FailsWithEconnrefusedWhenTheReceiverHasDied)
{
    ASSERT_EQ(send(peer_node_, peer_sap(), "x", 1), 0);
    peer_->finish("die");
    errno = 0;
    EXPECT_EQ(send(peer_node_, peer_sap(), "x", 1), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST_F(MtsSend, FailsWithErrno62WhenTheReceiversQueueStaysFull)
{
    // In a child, which can be ended when the call blocks.
    const int status = exit_status_of_child([&] { return fill_queue(peer_node_, peer_sap()); });
    ASSERT_NE(status, CHILD_WAS_STUCK) << "mts_send blocks until the receiver has room";
    ASSERT_NE(status, ENDLESS) << "a queue without bound";
    EXPECT_EQ(status, 62);
}

TEST_F(MtsSend, SucceedsToListenersThoughNobodyListens)
{
    EXPECT_EQ(mts_send(own_endpoint(), MTS_NODE_LISTENERS, 0, 4792, "x", 1, 0, 0, 0), 0);
}

TEST_F(MtsNode, IsTheModuleTimes256AndOneOnSupervisorsTwoOnOtherCards)
{
    ASSERT_EQ(peer_->ask(send_command("x")), "ok");
    const held_message message = receive(10);
    ASSERT_TRUE(message);
    mts_address_t sender = {};
    ASSERT_EQ(mts_saddr_get(message.get(), &sender), 0);
    EXPECT_EQ(sender.node, peer_node_); // told by the peer from its module number and kind
    EXPECT_NE(sender.node, own_node());
}
