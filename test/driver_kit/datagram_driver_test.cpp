// The promises of datagram_driver.h, for any driver.
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <map>
#include <numeric>
#include <poll.h>
#include <string>
#include <sys/prctl.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "datagram_surroundings.h"
#include "monotonic_clock.h"

namespace
{

using namespace std::chrono_literals;

constexpr std::uint32_t OPCODE = 4711;
constexpr std::int32_t SAP = 100;
constexpr std::int32_t OTHER_SAP = 200;
constexpr std::int32_t DRIVERS_CHOICE = -1;
constexpr std::int64_t LONG_US = 10 * MICROSECONDS;

struct unbind_port {
    void operator()(datagram_port *port) const { tested_datagram_driver.unbind(port); }
};
using bound_port = std::unique_ptr<datagram_port, unbind_port>;

bound_port bound(std::int32_t sap, unsigned node = 0)
{
    return bound_port(tested_datagram_driver.bind(network_node(node), sap));
}

mts_address_t address_of(const bound_port &port)
{
    return tested_datagram_driver.address(port.get());
}

mts_frame_header header_from(const bound_port &port, std::uint32_t opcode = OPCODE)
{
    const mts_address_t source = address_of(port);
    mts_frame_header header{};
    header.magic = MTS_FRAME_MAGIC;
    header.version = MTS_FRAME_VERSION;
    header.kind = mts_frame_kind::request;
    header.opcode = opcode;
    header.source_node = source.node;
    header.source_sap = source.sap;
    header.status = 0x40710001;
    header.request_id = 0x123456789abcdef0;
    return header;
}

bool send_bytes(const bound_port &port, mts_address_t to, const std::string &bytes, datagram_peer *peer = nullptr)
{
    mts_frame_header header = header_from(port);
    header.payload_bytes = static_cast<std::uint32_t>(bytes.size());
    return tested_datagram_driver.send(port.get(), to, header, {bytes.data(), header.payload_bytes, nullptr, 0},
                                       peer);
}

// What the driver has in hand within a time, past what it drops.
mts_held_message received(const bound_port &port, std::int64_t wait_us = LONG_US)
{
    const std::int64_t deadline = monotonic_us() + wait_us;
    for (;;) {
        auto message = tested_datagram_driver.receive(port.get(), deadline - monotonic_us());
        if (message || errno != EBADMSG)
            return message;
    }
}

std::string text_of(const mts_held_message &message)
{
    if (!message)
        return "no message";
    return {reinterpret_cast<const char *>(message->payload), message->header.payload_bytes};
}

std::string pattern_of(std::size_t bytes)
{
    std::string text(bytes, '\0');
    std::uint32_t number = static_cast<std::uint32_t>(bytes);
    for (char &byte : text)
        byte = static_cast<char>((number = number * 1664525 + 1013904223) >> 24);
    return text;
}

// A process of the network. Its work runs after ready(), which lets the test go on; killed at the end.
class peer_process
{
public:
    using work = std::function<void(const std::function<void()> &ready)>;

    explicit peer_process(const work &job)
    {
        int ready[2];
        if (::pipe2(ready, O_CLOEXEC) != 0)
            std::abort();
        process_ = ::fork();
        if (process_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            job([&] { (void)!::write(ready[1], "1", 1); });
            ::_exit(0);
        }
        ::close(ready[1]);
        char state = '0';
        is_ready_ = ::read(ready[0], &state, 1) == 1;
        ::close(ready[0]);
    }
    peer_process(const peer_process &) = delete;
    peer_process &operator=(const peer_process &) = delete;
    ~peer_process() { kill(); }

    bool is_ready() const { return is_ready_; }

    void stop() const
    {
        int status = 0;
        ::kill(process_, SIGSTOP);
        (void)::waitpid(process_, &status, WUNTRACED);
    }

    void kill()
    {
        if (process_ > 0) {
            ::kill(process_, SIGKILL);
            (void)::waitpid(process_, nullptr, 0);
        }
        process_ = -1;
    }

private:
    pid_t process_ = -1;
    bool is_ready_ = false;
};

[[noreturn]] void sleep_for_ever()
{
    for (;;)
        ::pause();
}

// Has an address and does nothing with it.
peer_process::work owner_of(std::int32_t sap)
{
    return [sap](const std::function<void()> &ready) {
        const bound_port port = bound(sap);
        if (!port)
            return;
        ready();
        sleep_for_ever();
    };
}

bool eventually(const std::function<bool()> &condition)
{
    const std::int64_t deadline = monotonic_us() + LONG_US;
    while (!condition()) {
        if (monotonic_us() > deadline)
            return false;
        ::usleep(2000);
    }
    return true;
}

class DatagramDriver : public testing::Test
{
protected:
    void SetUp() override { make_network(); }
    void TearDown() override { remove_network(); }
};

} // namespace

TEST_F(DatagramDriver, RecordIsComplete)
{
    const datagram_driver &driver = tested_datagram_driver;
    ASSERT_NE(driver.name, nullptr);
    EXPECT_STRNE(driver.name, "");
    EXPECT_TRUE(driver.bind && driver.unbind && driver.abandon && driver.address && driver.descriptor &&
                driver.receive && driver.send && driver.is_there && driver.is_bound && driver.nodes_with &&
                driver.listen && driver.send_to_listeners);
}

TEST_F(DatagramDriver, BindsTheAddressAskedFor)
{
    const bound_port port = bound(SAP, 1);
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(address_of(port).node, network_node(1));
    EXPECT_EQ(address_of(port).sap, static_cast<std::uint32_t>(SAP));
    EXPECT_TRUE(tested_datagram_driver.is_bound(address_of(port), nullptr));
    EXPECT_FALSE(tested_datagram_driver.is_bound({network_node(0), OTHER_SAP}, nullptr));
}

TEST_F(DatagramDriver, BindsNoAddressWhoseOwnerLives)
{
    const peer_process owner(owner_of(SAP));
    ASSERT_TRUE(owner.is_ready());
    errno = 0;
    EXPECT_EQ(bound(SAP), nullptr);
    EXPECT_EQ(errno, EADDRINUSE);
}

TEST_F(DatagramDriver, TakesOverTheAddressOfADeadProcess)
{
    peer_process owner(owner_of(SAP));
    ASSERT_TRUE(owner.is_ready());
    owner.kill();
    EXPECT_FALSE(tested_datagram_driver.is_bound({network_node(0), SAP}, nullptr));
    EXPECT_NE(bound(SAP), nullptr);
}

TEST_F(DatagramDriver, FindsTheNodesOfAServiceAccessPoint)
{
    EXPECT_EQ(tested_datagram_driver.nodes_with(SAP), std::vector<std::uint32_t>{});
    const bound_port second = bound(SAP, 1);
    const bound_port first = bound(SAP, 0);
    const bound_port other = bound(OTHER_SAP, 0);
    EXPECT_EQ(tested_datagram_driver.nodes_with(SAP),
              (std::vector<std::uint32_t>{network_node(0), network_node(1)}));
    peer_process gone(owner_of(OTHER_SAP + 1));
    ASSERT_TRUE(gone.is_ready());
    EXPECT_EQ(tested_datagram_driver.nodes_with(OTHER_SAP + 1).size(), 1U);
    gone.kill();
    EXPECT_EQ(tested_datagram_driver.nodes_with(OTHER_SAP + 1), std::vector<std::uint32_t>{});
}

TEST_F(DatagramDriver, GivesAnAddressBack)
{
    const mts_address_t address = address_of(bound(SAP));
    EXPECT_FALSE(tested_datagram_driver.is_bound(address, nullptr));
    EXPECT_NE(bound(SAP), nullptr);
}

TEST_F(DatagramDriver, ChoosesAnotherSapEachTime)
{
    std::map<std::uint32_t, unsigned> times;
    for (unsigned round = 0; round < 100; ++round)
        ++times[address_of(bound(DRIVERS_CHOICE)).sap];
    EXPECT_EQ(times.size(), 100U);
    EXPECT_GE(times.begin()->first, DATAGRAM_FIRST_CHOSEN_SAP);
}

TEST_F(DatagramDriver, DeliversHeaderAndPayloadAsTheyWereGiven)
{
    const bound_port sender = bound(SAP);
    const bound_port receiver = bound(OTHER_SAP, 1);
    ASSERT_TRUE(sender && receiver);
    mts_frame_header header = header_from(sender);
    header.payload_bytes = 7;
    ASSERT_TRUE(
        tested_datagram_driver.send(sender.get(), address_of(receiver), header, {"abc", 3, "defg", 4}, nullptr));

    const auto message = received(receiver);
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(text_of(message), "abcdefg");
    header.place = message->header.place;
    EXPECT_EQ(std::memcmp(&message->header, &header, sizeof header), 0);
}

TEST_F(DatagramDriver, DeliversEverySizeWithZerosBehindIt)
{
    const bound_port port = bound(SAP);
    ASSERT_NE(port, nullptr);
    for (const std::size_t bytes :
         {0U, 1U, 1399U, 1400U, 65535U, 65536U, 65537U, 66000U, 1U << 20, MTS_MAX_PAYLOAD_BYTES}) {
        const std::string sent = pattern_of(bytes);
        ASSERT_TRUE(send_bytes(port, address_of(port), sent)) << bytes << " bytes: " << std::strerror(errno);
        const auto message = received(port);
        ASSERT_TRUE(text_of(message) == sent) << bytes << " bytes";
        const std::uint8_t *behind = message->payload + bytes;
        EXPECT_EQ(std::accumulate(behind, behind + MTS_ZEROS_BEHIND_PAYLOAD, 0U), 0U) << bytes << " bytes";
    }
}

TEST_F(DatagramDriver, SendsNothingLargerThanTheTransportCarries)
{
    const bound_port port = bound(SAP);
    const std::string most(MTS_MAX_PAYLOAD_BYTES, 'x');
    mts_frame_header header = header_from(port);
    header.payload_bytes = MTS_MAX_PAYLOAD_BYTES + 1;
    errno = 0;
    EXPECT_FALSE(tested_datagram_driver.send(port.get(), address_of(port), header,
                                             {most.data(), MTS_MAX_PAYLOAD_BYTES, "y", 1}, nullptr));
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_EQ(received(port, 0), nullptr);
}

TEST_F(DatagramDriver, KeepsTheOrderOfLargeAndSmall)
{
    const bound_port port = bound(SAP);
    constexpr std::array<std::size_t, 6> SIZES = {10, 200'000, 0, 70'000, 5, 65'536};
    for (const std::size_t bytes : SIZES)
        ASSERT_TRUE(send_bytes(port, address_of(port), pattern_of(bytes)));
    for (const std::size_t bytes : SIZES)
        EXPECT_TRUE(text_of(received(port)) == pattern_of(bytes)) << bytes << " bytes";
    EXPECT_EQ(received(port, 0), nullptr);
}

TEST_F(DatagramDriver, SaysThatNobodyHasAnAddress)
{
    const bound_port port = bound(SAP);
    errno = 0;
    EXPECT_FALSE(send_bytes(port, {network_node(0), OTHER_SAP}, "to nobody"));
    EXPECT_EQ(errno, ECONNREFUSED);

    peer_process gone(owner_of(OTHER_SAP));
    ASSERT_TRUE(send_bytes(port, {network_node(0), OTHER_SAP}, "to the living"));
    gone.kill();
    errno = 0;
    EXPECT_FALSE(send_bytes(port, {network_node(0), OTHER_SAP}, "to the dead"));
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST_F(DatagramDriver, SendsToTheSuccessorOfADeadReceiver)
{
    const bound_port port = bound(SAP);
    {
        peer_process first(owner_of(OTHER_SAP));
        ASSERT_TRUE(send_bytes(port, {network_node(0), OTHER_SAP}, "to the first"));
    }
    const bound_port successor = bound(OTHER_SAP);
    ASSERT_TRUE(send_bytes(port, {network_node(0), OTHER_SAP}, "to the second"));
    EXPECT_EQ(text_of(received(successor)), "to the second");
}

TEST_F(DatagramDriver, TellsSinceWhenAnAddressIsTakenWhenItKnows)
{
    const std::int64_t before = std::time(nullptr);
    const bound_port port = bound(SAP);
    datagram_peer self;
    ASSERT_TRUE(tested_datagram_driver.is_bound({network_node(0), SAP}, &self));
    if (self.bound_at_s == 0)
        GTEST_SKIP() << "the driver does not know it";
    EXPECT_GE(self.bound_at_s, before - 1); // a file system's clock may be a tick behind
    EXPECT_LE(self.bound_at_s, std::time(nullptr));
}

TEST_F(DatagramDriver, TellsAPeerFromItsSuccessor)
{
    const bound_port port = bound(SAP);
    const mts_address_t theirs = {network_node(0), OTHER_SAP};
    peer_process first(owner_of(OTHER_SAP));
    datagram_peer peer;
    ASSERT_TRUE(send_bytes(port, theirs, "who are you", &peer));
    EXPECT_TRUE(tested_datagram_driver.is_there(port.get(), theirs, peer));

    first.kill();
    EXPECT_TRUE(eventually([&] { return !tested_datagram_driver.is_there(port.get(), theirs, peer); }));

    const peer_process second(owner_of(OTHER_SAP));
    ASSERT_TRUE(second.is_ready());
    EXPECT_FALSE(tested_datagram_driver.is_there(port.get(), theirs, peer));
    datagram_peer successor;
    ASSERT_TRUE(send_bytes(port, theirs, "and you", &successor));
    EXPECT_FALSE(successor == peer);
    EXPECT_TRUE(tested_datagram_driver.is_there(port.get(), theirs, successor));
}

TEST_F(DatagramDriver, WaitsForADatagramNoLongerThanAskedFor)
{
    const bound_port port = bound(SAP);
    for (const std::int64_t wait_us : {-5, 0, 300'000}) {
        const std::int64_t before = monotonic_us();
        errno = 0;
        EXPECT_EQ(received(port, wait_us), nullptr);
        EXPECT_EQ(errno, EAGAIN);
        EXPECT_GE(monotonic_us() - before, wait_us - 20'000);
        EXPECT_LE(monotonic_us() - before, wait_us + 5 * MICROSECONDS);
    }
}

TEST_F(DatagramDriver, WakesUpWhenADatagramComes)
{
    const bound_port port = bound(SAP);
    const mts_address_t address = address_of(port);
    const std::int64_t before = monotonic_us();
    const peer_process sender([&](const std::function<void()> &ready) {
        const bound_port own = bound(DRIVERS_CHOICE);
        ready();
        ::usleep(100'000);
        (void)send_bytes(own, address, "now");
        sleep_for_ever();
    });
    EXPECT_EQ(text_of(received(port, 6 * LONG_US)), "now");
    EXPECT_LE(monotonic_us() - before, LONG_US);
}

TEST_F(DatagramDriver, EndsTheWaitAtASignal)
{
    struct sigaction action {
    }, before;
    action.sa_handler = [](int) {};
    ::sigaction(SIGALRM, &action, &before);
    const itimerval every = {{0, 50'000}, {0, 50'000}};
    ::setitimer(ITIMER_REAL, &every, nullptr);
    const bound_port port = bound(SAP);
    errno = 0;
    EXPECT_EQ(received(port), nullptr);
    EXPECT_EQ(errno, EINTR);
    const itimerval never{};
    ::setitimer(ITIMER_REAL, &never, nullptr);
    ::sigaction(SIGALRM, &before, nullptr);
}

TEST_F(DatagramDriver, ShowsAnArrivalAtItsDescriptor)
{
    const bound_port port = bound(SAP);
    pollfd arrival = {tested_datagram_driver.descriptor(port.get()), POLLIN, 0};
    EXPECT_EQ(::poll(&arrival, 1, 0), 0);
    ASSERT_TRUE(send_bytes(port, address_of(port), "here"));
    EXPECT_EQ(::poll(&arrival, 1, 10'000), 1);
    EXPECT_EQ(text_of(received(port, 0)), "here");
    EXPECT_EQ(::poll(&arrival, 1, 0), 0);
}

TEST_F(DatagramDriver, WaitsABoundedTimeForAFullReceiver)
{
    const bound_port port = bound(SAP);
    const mts_address_t theirs = {network_node(0), OTHER_SAP};
    const peer_process deaf(owner_of(OTHER_SAP));
    const std::string text = pattern_of(60'000);
    unsigned sent = 0;
    std::int64_t before = monotonic_us();
    while (send_bytes(port, theirs, text)) {
        before = monotonic_us();
        ASSERT_LT(++sent, 100'000U);
    }
    EXPECT_EQ(errno, MTS_ERRNO_TIMED_OUT);
    EXPECT_LE(monotonic_us() - before, 4 * MICROSECONDS);

    // It has kept one message waiting in vain: the next ones do not wait for it again.
    before = monotonic_us();
    for (unsigned again = 0; again < 5; ++again)
        EXPECT_FALSE(send_bytes(port, theirs, text));
    EXPECT_LE(monotonic_us() - before, MICROSECONDS);
}

TEST_F(DatagramDriver, DeliversToTheListenersOfAnOpcode)
{
    const bound_port sender = bound(SAP);
    const bound_port listening = bound(DRIVERS_CHOICE);
    const bound_port elsewhere = bound(DRIVERS_CHOICE, 1);
    const bound_port to_another = bound(DRIVERS_CHOICE);
    ASSERT_TRUE(tested_datagram_driver.listen(listening.get(), OPCODE));
    ASSERT_TRUE(tested_datagram_driver.listen(listening.get(), OPCODE));
    ASSERT_TRUE(tested_datagram_driver.listen(elsewhere.get(), OPCODE));
    ASSERT_TRUE(tested_datagram_driver.listen(to_another.get(), OPCODE + 1));
    mts_frame_header header = header_from(sender);
    header.payload_bytes = 4;
    ASSERT_TRUE(tested_datagram_driver.send_to_listeners(sender.get(), header, {"news", 4, nullptr, 0}));

    EXPECT_EQ(text_of(received(listening)), "news");
    EXPECT_EQ(text_of(received(elsewhere)), "news");
    EXPECT_EQ(received(listening, 200'000), nullptr);
    EXPECT_EQ(received(to_another, 0), nullptr);
    EXPECT_EQ(received(sender, 0), nullptr);
}

TEST_F(DatagramDriver, DeliversNoMoreToAnAddressThatWasGivenBack)
{
    const bound_port sender = bound(SAP);
    const auto listen_and_leave = [] {
        const bound_port port = bound(OTHER_SAP);
        return tested_datagram_driver.listen(port.get(), OPCODE);
    };
    ASSERT_TRUE(listen_and_leave());
    const bound_port successor = bound(OTHER_SAP);
    ASSERT_TRUE(
        tested_datagram_driver.send_to_listeners(sender.get(), header_from(sender), {nullptr, 0, nullptr, 0}));
    EXPECT_EQ(received(successor, 200'000), nullptr);
}

TEST_F(DatagramDriver, SendsToListenersAlsoWhenThereIsNone)
{
    const bound_port sender = bound(SAP);
    const auto news = [&] {
        mts_frame_header header = header_from(sender);
        return tested_datagram_driver.send_to_listeners(sender.get(), header, {nullptr, 0, nullptr, 0});
    };
    EXPECT_TRUE(news());
    peer_process listener([](const std::function<void()> &ready) {
        const bound_port port = bound(DRIVERS_CHOICE);
        if (tested_datagram_driver.listen(port.get(), OPCODE))
            ready();
        sleep_for_ever();
    });
    ASSERT_TRUE(listener.is_ready());
    EXPECT_TRUE(news());
    listener.kill();
    EXPECT_TRUE(news());
}

TEST_F(DatagramDriver, AForkedChildLeavesTheAddressToItsParent)
{
    // The parent lives on: the address stays its own, and it goes on receiving.
    const bound_port port = bound(SAP);
    const peer_process child([&](const std::function<void()> &ready) {
        tested_datagram_driver.abandon(port.get());
        ready();
        sleep_for_ever();
    });
    ASSERT_TRUE(child.is_ready());
    EXPECT_TRUE(tested_datagram_driver.is_bound(address_of(port), nullptr));
    ASSERT_TRUE(send_bytes(port, address_of(port), "still here"));
    EXPECT_EQ(text_of(received(port)), "still here");
}

TEST_F(DatagramDriver, TheAddressIsFreeWhenTheParentIsDeadThoughItsChildLives)
{
    int children[2];
    ASSERT_EQ(::pipe2(children, O_CLOEXEC), 0);
    peer_process parent([&](const std::function<void()> &ready) {
        const bound_port port = bound(OTHER_SAP);
        const pid_t child = ::fork();
        if (child == 0) {
            tested_datagram_driver.abandon(port.get());
            const pid_t own = ::getpid();
            (void)!::write(children[1], &own, sizeof own);
            ready();
            sleep_for_ever();
        }
        sleep_for_ever();
    });
    pid_t child = -1;
    ASSERT_EQ(::read(children[0], &child, sizeof child), static_cast<ssize_t>(sizeof child));
    EXPECT_TRUE(tested_datagram_driver.is_bound({network_node(0), OTHER_SAP}, nullptr));
    parent.kill();
    EXPECT_EQ(::kill(child, 0), 0) << "the child is to live for this test";
    EXPECT_FALSE(tested_datagram_driver.is_bound({network_node(0), OTHER_SAP}, nullptr));
    EXPECT_NE(bound(OTHER_SAP), nullptr);
    ::kill(child, SIGKILL);
    ::close(children[0]);
    ::close(children[1]);
}

TEST_F(DatagramDriver, GivesNoDescriptorToAProgramThatIsRun)
{
    constexpr int DESCRIPTORS = 1024;
    const auto is_open = [](int descriptor) { return ::fcntl(descriptor, F_GETFD) >= 0; };
    std::vector<bool> before;
    for (int descriptor = 0; descriptor < DESCRIPTORS; ++descriptor)
        before.push_back(is_open(descriptor));

    const bound_port port = bound(SAP);
    ASSERT_TRUE(tested_datagram_driver.listen(port.get(), OPCODE));
    ASSERT_TRUE(send_bytes(port, address_of(port), pattern_of(100'000)));
    ASSERT_NE(received(port), nullptr);
    unsigned opened = 0;
    for (int descriptor = 0; descriptor < DESCRIPTORS; ++descriptor) {
        if (before[static_cast<std::size_t>(descriptor)] || !is_open(descriptor))
            continue;
        ++opened;
        EXPECT_NE(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0) << "descriptor " << descriptor;
    }
    EXPECT_GT(opened, 0U);
}
