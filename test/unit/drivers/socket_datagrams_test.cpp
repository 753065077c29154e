// Frames that nobody should send: the chassis's transport drops them and nothing else happens.
#include <gtest/gtest.h>

#include <iostream>
#include <random>
#include <sched.h>
#include <sys/mman.h>

#include "socket_datagram.h"
#include "transport_fixture.h"

using namespace chassis_test;

namespace
{

mts_frame_header sound_header(std::uint32_t payload_bytes)
{
    mts_frame_header header{};
    header.magic = MTS_FRAME_MAGIC;
    header.version = MTS_FRAME_VERSION;
    header.kind = mts_frame_kind::unsolicited;
    header.opcode = OPCODE;
    header.source_node = 7;
    header.source_sap = 8;
    header.payload_bytes = payload_bytes;
    return header;
}

std::vector<std::uint8_t> frame_of(const mts_frame_header &header, const std::string &payload = "")
{
    std::vector<std::uint8_t> frame(sizeof header + payload.size());
    std::memcpy(frame.data(), &header, sizeof header);
    std::memcpy(frame.data() + sizeof header, payload.data(), payload.size());
    return frame;
}

void send_raw(int socket, const std::vector<std::uint8_t> &frame, const std::vector<int> &descriptors = {})
{
    iovec part = {const_cast<std::uint8_t *>(frame.data()), frame.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    std::vector<char> control(CMSG_SPACE(descriptors.size() * sizeof(int)));
    if (!descriptors.empty()) {
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        cmsghdr *first = CMSG_FIRSTHDR(&message);
        first->cmsg_level = SOL_SOCKET;
        first->cmsg_type = SCM_RIGHTS;
        first->cmsg_len = CMSG_LEN(descriptors.size() * sizeof(int));
        std::memcpy(CMSG_DATA(first), descriptors.data(), descriptors.size() * sizeof(int));
    }
    ASSERT_EQ(::sendmsg(socket, &message, 0), static_cast<ssize_t>(frame.size())) << std::strerror(errno);
}

unique_fd memory_file(std::size_t bytes, int seals)
{
    unique_fd file(::memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    EXPECT_EQ(::ftruncate(file.get(), static_cast<off_t>(bytes)), 0);
    EXPECT_EQ(::fcntl(file.get(), F_ADD_SEALS, seals), 0);
    return file;
}

using TransportFrames = Transport;

constexpr int ALL_SEALS = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE;

TEST_F(TransportFrames, DropsFramesThatAreNotSound)
{
    const unique_fd socket = raw_socket_to(CARD_1, DAEMON_SAP);
    const std::size_t descriptors = open_descriptors();
    std::vector<std::pair<std::string, std::vector<std::uint8_t>>> frames;
    const auto add = [&](const std::string &name, const std::function<void(mts_frame_header &)> &spoil) {
        mts_frame_header header = sound_header(4);
        spoil(header);
        frames.emplace_back(name, frame_of(header, "body"));
    };
    add("magic", [](mts_frame_header &header) { header.magic ^= 1; });
    add("version", [](mts_frame_header &header) { header.version = 2; });
    add("kind 0", [](mts_frame_header &header) { header.kind = static_cast<mts_frame_kind>(0); });
    add("kind 5", [](mts_frame_header &header) { header.kind = static_cast<mts_frame_kind>(5); });
    add("kind 255", [](mts_frame_header &header) { header.kind = static_cast<mts_frame_kind>(255); });
    add("place", [](mts_frame_header &header) { header.place = static_cast<mts_frame_place>(2); });
    add("no memory file", [](mts_frame_header &header) { header.place = mts_frame_place::memory_file; });
    add("one more", [](mts_frame_header &header) { header.payload_bytes = 5; });
    add("one less", [](mts_frame_header &header) { header.payload_bytes = 3; });
    add("none", [](mts_frame_header &header) { header.payload_bytes = 0; });
    add("too large", [](mts_frame_header &header) { header.payload_bytes = MTS_MAX_PAYLOAD_BYTES + 1; });
    add("far too large", [](mts_frame_header &header) { header.payload_bytes = 0xffffffff; });
    add("stray answer", [](mts_frame_header &header) { header.kind = mts_frame_kind::response; });
    add("stray reject", [](mts_frame_header &header) { header.kind = mts_frame_kind::reject; });
    for (const auto &[name, frame] : frames) {
        send_raw(socket.get(), frame);
        EXPECT_FALSE(received(handle_, 0)) << name;
    }
    const std::vector<std::uint8_t> sound = frame_of(sound_header(4), "body");
    for (std::size_t bytes = 0; bytes < sound.size(); ++bytes) {
        send_raw(socket.get(), {sound.begin(), sound.begin() + static_cast<std::ptrdiff_t>(bytes)});
        EXPECT_FALSE(received(handle_, 0)) << bytes;
    }
    send_raw(socket.get(),
             frame_of(sound_header(INLINE_PAYLOAD_BYTES + 1), std::string(INLINE_PAYLOAD_BYTES + 1, 'x')));
    EXPECT_FALSE(received(handle_, 0));
    send_raw(socket.get(), sound);
    EXPECT_TRUE(received(handle_, 0));
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(TransportFrames, DropsMemoryFilesThatAreNotSealedAndOfTheSizeStated)
{
    const unique_fd socket = raw_socket_to(CARD_1, DAEMON_SAP);
    constexpr std::uint32_t BYTES = INLINE_PAYLOAD_BYTES + 1000;
    const unique_fd good = memory_file(BYTES, ALL_SEALS);
    const unique_fd longer = memory_file(BYTES + 1, ALL_SEALS);
    const unique_fd shorter = memory_file(BYTES - 1, ALL_SEALS);
    const unique_fd small = memory_file(1000, ALL_SEALS);
    const unique_fd not_write = memory_file(BYTES, F_SEAL_SHRINK | F_SEAL_GROW);
    const unique_fd not_shrink = memory_file(BYTES, F_SEAL_WRITE | F_SEAL_GROW);
    const unique_fd file(::open((chassis_ + "/plain").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(::ftruncate(file.get(), BYTES), 0);
    const std::size_t descriptors = open_descriptors();

    mts_frame_header header = sound_header(BYTES);
    header.place = mts_frame_place::memory_file;
    for (const unique_fd *bad : {&longer, &shorter, &small, &not_write, &not_shrink, &file}) {
        send_raw(socket.get(), frame_of(header), {bad->get()});
        EXPECT_FALSE(received(handle_, 0)) << bad->get();
    }
    for (const std::size_t count : {0u, 2u, 3u, 4u, 20u}) {
        send_raw(socket.get(), frame_of(header), std::vector<int>(count, good.get()));
        EXPECT_FALSE(received(handle_, 0)) << count;
    }
    send_raw(socket.get(), frame_of(header, "payload too"), {good.get()});
    EXPECT_FALSE(received(handle_, 0));
    send_raw(socket.get(), frame_of(sound_header(4), "body"), {good.get()});
    EXPECT_FALSE(received(handle_, 0));
    header.payload_bytes = 1000;
    send_raw(socket.get(), frame_of(header), {small.get()});
    EXPECT_FALSE(received(handle_, 0));
    EXPECT_EQ(open_descriptors(), descriptors);

    header.payload_bytes = BYTES;
    send_raw(socket.get(), frame_of(header), {good.get()});
    EXPECT_TRUE(received(handle_, 0));
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(TransportFrames, FindsAMessageBehindRubbishWithoutWaiting)
{
    const unique_fd socket = raw_socket_to(CARD_1, DAEMON_SAP);
    send_raw(socket.get(), {1, 2, 3});
    send_raw(socket.get(), {});
    send_raw(socket.get(), frame_of(sound_header(2), "ok"));
    const held_message message = received(handle_, 0);
    ASSERT_TRUE(message);
    EXPECT_EQ(text_of(message.get()), "ok");
}

TEST_F(TransportFrames, SurvivesRandomFrames)
{
    const unsigned seed = std::random_device()();
    std::cout << "seed " << seed << '\n';
    std::mt19937 random(seed);
    const auto below = [&](std::uint32_t limit) { return static_cast<std::uint32_t>(random()) % limit; };
    const unique_fd socket = raw_socket_to(CARD_1, DAEMON_SAP);
    const unique_fd file = memory_file(INLINE_PAYLOAD_BYTES + 1, ALL_SEALS);
    watch_from_now_on();
    const std::size_t descriptors = open_descriptors();
    for (int round = 0; round < 5000; ++round) {
        std::vector<std::uint8_t> frame = frame_of(sound_header(below(40)), std::string(below(40), 'x'));
        for (unsigned change = below(4); change > 0; --change)
            frame[random() % frame.size()] = static_cast<std::uint8_t>(below(256));
        send_raw(socket.get(), frame, std::vector<int>(below(8) == 0 ? below(3) : 0, file.get()));
        if (const held_message message = received(handle_, 0)) {
            ASSERT_LE(mts_payload_length(message.get()), MTS_MAX_PAYLOAD_BYTES);
            ASSERT_EQ(static_cast<char *>(mts_payload_get(message.get()))[640], 0);
        }
    }
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(TransportFrames, DropsMessagesOfAnotherUser)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root may become another user";
    const pid_t child = ::fork();
    if (child == 0) {
        const unique_fd socket = raw_socket_to(CARD_1, DAEMON_SAP);
        if (::setuid(12345) != 0)
            ::_exit(1);
        send_raw(socket.get(), frame_of(sound_header(4), "evil"));
        ::_exit(0);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    ASSERT_EQ(status, 0);
    EXPECT_FALSE(received(handle_, 0));
    send_raw(raw_socket_to(CARD_1, DAEMON_SAP).get(), frame_of(sound_header(4), "good"));
    EXPECT_TRUE(received(handle_, 0));
}

// A card in a user namespace of its own has other numbers for the same users.
TEST_F(TransportFrames, AreAcceptedFromTheSameUserInAnotherUserNamespace)
{
    const std::string map = "4242 " + std::to_string(::geteuid()) + " 1\n";
    const auto join = [&map] {
        return ::unshare(CLONE_NEWUSER) == 0 && (std::ofstream("/proc/self/uid_map") << map << std::flush).good() &&
               ::geteuid() == 4242;
    };
    const pid_t trial = ::fork();
    if (trial == 0)
        ::_exit(join() ? 0 : 1);
    int status = -1;
    ::waitpid(trial, &status, 0);
    if (status != 0)
        GTEST_SKIP() << "no user namespaces here";

    const pid_t child = ::fork();
    if (child == 0) {
        const bool inside = join() && chassis_attach(chassis_, 2) == 0;
        const std::int32_t handle = inside ? bind_endpoint(DAEMON_SAP) : -1;
        if (handle < 0 || send_text(handle, CARD_1, DAEMON_SAP, "from inside") != 0)
            ::_exit(1);
        const held_message message = received(handle);
        ::_exit(message && text_of(message.get()) == "from outside" ? 0 : 2);
    }
    const held_message message = received(handle_);
    ASSERT_TRUE(message);
    EXPECT_EQ(text_of(message.get()), "from inside");
    EXPECT_EQ(send_text(handle_, CARD_2, DAEMON_SAP, "from outside"), 0);
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

} // namespace
