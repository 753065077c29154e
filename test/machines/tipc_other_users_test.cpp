// What another user of a card can do with sockets of his own: he binds the names of the system's endpoints, listens
// for its notices, sends what he likes to whom he likes. He learns nothing, changes nothing, and costs others
// little.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <functional>
#include <poll.h>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "chassis_key.h"
#include "datagram_surroundings.h"
#include "monotonic_clock.h"
#include "sealed_datagram.h"
#include "tipc_names.h"

namespace
{

constexpr std::int32_t SAP = 100;
constexpr std::int32_t OTHER_SAP = 200;
constexpr std::uint32_t OPCODE = 4711;
constexpr uid_t NOBODY = 65534;
constexpr std::int64_t COST_US = MICROSECONDS / 2; // that another user may cause at most
constexpr unsigned MANY_SOCKETS = 500;

struct unbind_port {
    void operator()(datagram_port *port) const { tested_datagram_driver.unbind(port); }
};
using bound_port = std::unique_ptr<datagram_port, unbind_port>;

bound_port bound(std::int32_t sap)
{
    return bound_port(tested_datagram_driver.bind(network_node(0), sap));
}

bool send_text(const bound_port &port, mts_address_t to, const std::string &text)
{
    const mts_address_t source = tested_datagram_driver.address(port.get());
    mts_frame_header header{};
    header.magic = MTS_FRAME_MAGIC;
    header.version = MTS_FRAME_VERSION;
    header.kind = mts_frame_kind::request;
    header.opcode = OPCODE;
    header.source_node = source.node;
    header.source_sap = source.sap;
    header.payload_bytes = static_cast<std::uint32_t>(text.size());
    const mts_payload payload = {text.data(), header.payload_bytes, nullptr, 0};
    return to.node == MTS_NODE_LISTENERS ? tested_datagram_driver.send_to_listeners(port.get(), header, payload)
                                         : tested_datagram_driver.send(port.get(), to, header, payload, nullptr);
}

// The next message; what the driver drops on the way is counted.
std::string received(const bound_port &port, unsigned *dropped = nullptr, std::int64_t wait_us = MICROSECONDS)
{
    const std::int64_t deadline = monotonic_us() + wait_us;
    for (;;) {
        const auto message = tested_datagram_driver.receive(port.get(), deadline - monotonic_us());
        if (message)
            return {reinterpret_cast<const char *>(message->payload), message->header.payload_bytes};
        if (errno != EBADMSG)
            return "nothing";
        if (dropped != nullptr)
            ++*dropped;
    }
}

// What the other user tells the test.
struct told_by_user {
    volatile unsigned ready;
    volatile unsigned heard; // datagrams that came to sockets of his
    volatile unsigned sent;
    volatile unsigned has_key;
};

// A process of another user, killed at the end.
class other_user
{
public:
    explicit other_user(const std::function<void(told_by_user &)> &work)
        : told_(static_cast<told_by_user *>(
              ::mmap(nullptr, sizeof(told_by_user), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)))
    {
        process_ = ::fork();
        if (process_ == 0) {
            if (::setgid(NOBODY) != 0 || ::setuid(NOBODY) != 0)
                ::_exit(1);
            told_->has_key = read_chassis_key(CHASSIS_KEY_FILE) ? 1 : 0;
            work(*told_);
            ::_exit(0);
        }
        const std::int64_t deadline = monotonic_us() + 30 * MICROSECONDS;
        while (told_->ready == 0 && monotonic_us() < deadline)
            ::usleep(1000);
        EXPECT_EQ(told_->ready, 1U);
        EXPECT_EQ(told_->has_key, 0U);
    }
    other_user(const other_user &) = delete;
    other_user &operator=(const other_user &) = delete;
    ~other_user()
    {
        ::kill(process_, SIGKILL);
        (void)::waitpid(process_, nullptr, 0);
        ::munmap(told_, sizeof(told_by_user));
    }
    const told_by_user &told() const { return *told_; }

private:
    told_by_user *told_;
    pid_t process_ = -1;
};

// Sockets of his with a name; he counts what comes to them.
std::function<void(told_by_user &)> owner_of(const std::vector<tipc_service> &names, unsigned sockets = 1)
{
    return [names, sockets](told_by_user &told) {
        std::vector<unique_fd> own;
        std::vector<pollfd> waits;
        for (unsigned k = 0; k < sockets; ++k) {
            own.push_back(tipc_datagram_socket());
            for (const tipc_service &name : names) {
                if (!tipc_bind(own.back().get(), name))
                    ::_exit(1);
            }
            waits.push_back({own.back().get(), POLLIN, 0});
        }
        told.ready = 1;
        for (;;) {
            (void)::poll(waits.data(), waits.size(), -1);
            std::uint8_t buffer[TIPC_MAX_USER_MSG_SIZE];
            for (const pollfd &wait : waits) {
                tipc_arrival arrival;
                while (tipc_receive(wait.fd, buffer, arrival))
                    told.heard = told.heard + 1;
            }
        }
    };
}

tipc_service name_of(std::int32_t sap)
{
    return {TIPC_ADDRESS_TYPE + static_cast<std::uint32_t>(sap), network_node(0)};
}

mts_address_t address_of(std::int32_t sap)
{
    return {network_node(0), static_cast<std::uint32_t>(sap)};
}

class OtherUsers : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(::geteuid(), 0U) << "the key is root's";
        make_network();
    }
    void TearDown() override { remove_network(); }
};

} // namespace

TEST_F(OtherUsers, AreNotTakenForAnEndpointWhoseNameTheyHave)
{
    const other_user user(owner_of({name_of(SAP)}));
    EXPECT_FALSE(tested_datagram_driver.is_bound(address_of(SAP), nullptr));
    EXPECT_TRUE(tested_datagram_driver.nodes_with(SAP).empty());
    const bound_port sender = bound(OTHER_SAP);
    ASSERT_TRUE(sender);
    errno = 0;
    EXPECT_FALSE(send_text(sender, address_of(SAP), "to the endpoint"));
    EXPECT_EQ(errno, ECONNREFUSED);
    const bound_port endpoint = bound(SAP);
    ASSERT_TRUE(endpoint) << "its name is taken by nobody who counts";
    for (unsigned k = 0; k < 20; ++k) {
        EXPECT_TRUE(send_text(sender, address_of(SAP), "to the endpoint"));
        EXPECT_EQ(received(endpoint), "to the endpoint");
    }
    EXPECT_EQ(user.told().heard, 0U);
}

TEST_F(OtherUsers, CannotTakeOverTheProofOfAnotherSocket)
{
    const bound_port endpoint = bound(SAP);
    ASSERT_TRUE(endpoint);
    const tipc_range range[] = {address_range(address_of(SAP))};
    const auto publications = find_publications(range);
    ASSERT_TRUE(publications && publications->front().size() == 1);
    // All words of all proofs that are published, under the endpoint's name.
    std::vector<tipc_service> names = {name_of(SAP)};
    for (std::uint32_t place = 0; place < TIPC_PROOF_WORDS; ++place) {
        const tipc_range words[] = {{TIPC_PROOF_TYPE + place, 0, UINT32_MAX}};
        const auto published = find_publications(words);
        ASSERT_TRUE(published);
        for (const tipc_publication &each : published->front())
            names.push_back({TIPC_PROOF_TYPE + place, each.instance});
    }
    ASSERT_GT(names.size(), TIPC_PROOF_WORDS);
    const other_user user(owner_of(names));
    const auto found = find_proved(range[0], *chassis_key());
    ASSERT_TRUE(found);
    ASSERT_EQ(found->size(), 1U);
    EXPECT_EQ(found->front().socket, publications->front().front().socket);
}

TEST_F(OtherUsers, HearNoNotices)
{
    const other_user user(owner_of({{TIPC_LISTENER_TYPE + OPCODE, network_node(0)}}));
    const bound_port sender = bound(OTHER_SAP);
    const bound_port listener = bound(SAP);
    ASSERT_TRUE(sender && listener);
    ASSERT_TRUE(tested_datagram_driver.listen(listener.get(), OPCODE));
    EXPECT_TRUE(send_text(sender, {MTS_NODE_LISTENERS, 0}, "a notice"));
    EXPECT_EQ(received(listener), "a notice");
    ::usleep(100'000);
    EXPECT_EQ(user.told().heard, 0U);
}

TEST_F(OtherUsers, SendNothingThatIsReceived)
{
    const bound_port endpoint = bound(SAP);
    ASSERT_TRUE(endpoint);
    const other_user user([](told_by_user &told) {
        const unique_fd own = tipc_datagram_socket();
        const tipc_range range[] = {address_range(address_of(SAP))};
        const tipc_socket_id target = find_publications(range)->front().front().socket;
        tipc_socket_id id;
        (void)tipc_own_id(own.get(), id);
        const shared_key guessed{};
        mts_frame_header frame{};
        frame.magic = MTS_FRAME_MAGIC;
        frame.version = MTS_FRAME_VERSION;
        frame.kind = mts_frame_kind::request;
        datagram_seal head{};
        head.kind = static_cast<std::uint32_t>(sealed_kind::piece);
        head.number = 1;
        head.message_bytes = sizeof frame;
        const iovec piece[] = {{&frame, sizeof frame}};
        seal(head, piece, id, target, guessed);
        std::uint8_t zeros[1000] = {};
        const iovec sealed[] = {{&head, sizeof head}, {&frame, sizeof frame}};
        const iovec bare[] = {{&frame, sizeof frame}};
        const iovec blank[] = {{zeros, sizeof zeros}};
        for (const std::span<const iovec> parts :
             {std::span<const iovec>(sealed), std::span<const iovec>(bare), std::span<const iovec>(blank)})
            told.sent = told.sent + (tipc_send(own.get(), target, parts) == tipc_sending::sent ? 1 : 0);
        told.ready = 1;
        ::pause();
    });
    EXPECT_EQ(user.told().sent, 3U);
    unsigned dropped = 0;
    EXPECT_EQ(received(endpoint, &dropped), "nothing");
    EXPECT_EQ(dropped, 3U);
    EXPECT_EQ(received(endpoint, &dropped, 0), "nothing");
}

TEST_F(OtherUsers, WithManySocketsUnderOneNameCostLittle)
{
    const other_user user(owner_of({name_of(SAP)}, MANY_SOCKETS));
    const bound_port sender = bound(OTHER_SAP);
    const std::int64_t before = monotonic_us();
    const bound_port endpoint = bound(SAP);
    ASSERT_TRUE(sender && endpoint);
    EXPECT_TRUE(send_text(sender, address_of(SAP), "to the endpoint"));
    EXPECT_EQ(received(endpoint), "to the endpoint");
    EXPECT_LE(monotonic_us() - before, COST_US);
    EXPECT_EQ(user.told().heard, 0U);
}

TEST_F(OtherUsers, WhoSendAsMuchAsTheyCanCostLittle)
{
    const bound_port sender = bound(OTHER_SAP);
    const bound_port endpoint = bound(SAP);
    ASSERT_TRUE(sender && endpoint);
    const other_user user([](told_by_user &told) {
        const unique_fd own = tipc_datagram_socket();
        const tipc_range range[] = {address_range(address_of(SAP))};
        const tipc_socket_id target = find_publications(range)->front().front().socket;
        std::vector<std::uint8_t> most(TIPC_MAX_USER_MSG_SIZE);
        const iovec parts[] = {{most.data(), most.size()}};
        told.ready = 1;
        for (;;) {
            if (tipc_send(own.get(), target, parts) == tipc_sending::sent)
                told.sent = told.sent + 1;
            tipc_arrival arrival;
            std::uint8_t back[1024];
            while (tipc_receive(own.get(), back, arrival))
                ;
        }
    });
    std::int64_t longest_us = 0;
    for (unsigned k = 0; k < 20; ++k) {
        const std::int64_t before = monotonic_us();
        EXPECT_TRUE(send_text(sender, address_of(SAP), "to the endpoint")) << std::strerror(errno);
        EXPECT_EQ(received(endpoint), "to the endpoint");
        longest_us = std::max(longest_us, monotonic_us() - before);
    }
    EXPECT_LE(longest_us, COST_US);
    EXPECT_GT(user.told().sent, 0U);
}

// Not another user's work, but that of one who could copy what is sent: each datagram counts once.
TEST_F(OtherUsers, ADatagramThatCameBeforeIsDropped)
{
    const bound_port endpoint = bound(SAP);
    ASSERT_TRUE(endpoint);
    const unique_fd own = tipc_datagram_socket();
    const tipc_range range[] = {address_range(address_of(SAP))};
    const tipc_socket_id target = find_publications(range)->front().front().socket;
    tipc_socket_id id;
    ASSERT_TRUE(tipc_own_id(own.get(), id));
    mts_frame_header frame{};
    frame.magic = MTS_FRAME_MAGIC;
    frame.version = MTS_FRAME_VERSION;
    frame.kind = mts_frame_kind::request;
    datagram_seal head{};
    head.kind = static_cast<std::uint32_t>(sealed_kind::piece);
    head.number = 7;
    head.message_bytes = sizeof frame;
    const iovec piece[] = {{&frame, sizeof frame}};
    seal(head, piece, id, target, *chassis_key());
    const iovec parts[] = {{&head, sizeof head}, {&frame, sizeof frame}};
    for (unsigned k = 0; k < 3; ++k)
        ASSERT_EQ(tipc_send(own.get(), target, parts), tipc_sending::sent);
    unsigned dropped = 0;
    EXPECT_EQ(received(endpoint, &dropped), "");
    EXPECT_EQ(received(endpoint, &dropped), "nothing");
    EXPECT_EQ(dropped, 2U);
}
