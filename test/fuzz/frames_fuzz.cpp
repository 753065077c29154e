// The transport's frames, as they come out of a socket: any bytes, with any descriptors beside them. What is taken
// for a message is one, with its payload whole and zeros behind it; no descriptor stays open.
//
//   descriptors (1 byte), seals (1 byte), size of the memory file (3 bytes, big-endian) | datagram
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <span>
#include <sys/mman.h>
#include <sys/socket.h>

#include "fuzz_input.h"
#include "open_descriptor_check.h"
#include "socket_datagram.h"

namespace
{

constexpr unsigned MOST_DESCRIPTORS = 6; // two more than there is room for
constexpr std::uint8_t FILL = 0x5a;
constexpr std::size_t FILLED_BYTES = 4096; // of a memory file; the rest is zeros
constexpr int ALL_SEALS = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE;

struct socket_pair {
    unique_fd sending;
    unique_fd receiving;

    socket_pair()
    {
        int ends[2];
        const int on = 1;
        require(::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) == 0 &&
                    ::setsockopt(ends[1], SOL_SOCKET, SO_PASSCRED, &on, sizeof on) == 0 &&
                    ::setsockopt(ends[1], SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on) == 0,
                "a pair of sockets can be made");
        sending.reset(ends[0]);
        receiving.reset(ends[1]);
    }
};

struct sent_file {
    unique_fd file;
    std::uint32_t bytes;
    int seals;
};

sent_file make_memory_file(std::uint32_t bytes, int seals)
{
    sent_file made{unique_fd(::memfd_create("fuzz", MFD_CLOEXEC | MFD_ALLOW_SEALING)), bytes, seals & ALL_SEALS};
    char content[FILLED_BYTES];
    std::memset(content, FILL, sizeof content);
    require(::ftruncate(made.file.get(), static_cast<off_t>(bytes)) == 0 &&
                ::pwrite(made.file.get(), content, std::min<std::size_t>(bytes, sizeof content), 0) >= 0 &&
                ::fcntl(made.file.get(), F_ADD_SEALS, made.seals) == 0,
            "a memory file can be made and sealed");
    return made;
}

bool send_datagram(int socket, std::span<const std::uint8_t> datagram, const sent_file &file, unsigned descriptors)
{
    alignas(cmsghdr) char control[CMSG_SPACE(MOST_DESCRIPTORS * sizeof(int))] = {};
    iovec content = {const_cast<std::uint8_t *>(datagram.data()), datagram.size()};
    msghdr message{};
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    if (descriptors > 0) {
        message.msg_control = control;
        message.msg_controllen = CMSG_SPACE(descriptors * sizeof(int));
        cmsghdr *rights = CMSG_FIRSTHDR(&message);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(descriptors * sizeof(int));
        for (unsigned i = 0; i < descriptors; ++i) {
            const int number = file.file.get();
            std::memcpy(CMSG_DATA(rights) + i * sizeof number, &number, sizeof number);
        }
    }
    return ::sendmsg(socket, &message, MSG_NOSIGNAL) >= 0;
}

// Whether the datagram is a message, told by the rules and not by the code.
bool is_message(std::span<const std::uint8_t> datagram, const sent_file &file, unsigned descriptors)
{
    mts_frame_header header;
    if (datagram.size() < sizeof header)
        return false;
    std::memcpy(&header, datagram.data(), sizeof header);
    const auto kind = static_cast<unsigned>(header.kind);
    if (header.magic != MTS_FRAME_MAGIC || header.version != MTS_FRAME_VERSION || kind < 1 || kind > 4)
        return false;
    if (header.payload_bytes > MTS_MAX_PAYLOAD_BYTES)
        return false;
    const std::size_t behind = datagram.size() - sizeof header;
    if (static_cast<unsigned>(header.place) == 0)
        return descriptors == 0 && behind == header.payload_bytes && behind <= INLINE_PAYLOAD_BYTES;
    return static_cast<unsigned>(header.place) == 1 && descriptors == 1 && behind == 0 &&
           header.payload_bytes > INLINE_PAYLOAD_BYTES && file.bytes == header.payload_bytes &&
           file.seals == ALL_SEALS;
}

void expect_whole(const mts_message &message, std::span<const std::uint8_t> datagram)
{
    const std::uint32_t length = message.header.payload_bytes;
    const std::uint8_t *payload = message.payload;
    if (message.header.place == mts_frame_place::in_datagram)
        require(length == 0 || std::memcmp(payload, datagram.data() + sizeof(mts_frame_header), length) == 0,
                "an inline payload is what was sent");
    else
        require(payload[0] == FILL && payload[FILLED_BYTES - 1] == FILL && payload[length - 1] == 0,
                "a payload in a memory file is what was sent");
    for (std::uint32_t i = 0; i < MTS_READABLE_PAYLOAD_BYTES; ++i)
        require(payload[length + i] == 0, "behind a payload are zeros");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static socket_datagram received{};
    static const socket_pair sockets;
    const open_descriptor_check descriptors_as_before;
    fuzz_input input(data, size);
    const unsigned descriptors = input.byte() % (MOST_DESCRIPTORS + 1);
    const int seals = input.byte();
    const std::uint32_t file_high = input.byte();
    const std::uint32_t file_bytes = (file_high << 16 | input.word()) % (2 * INLINE_PAYLOAD_BYTES);
    sent_file file{};
    if (descriptors > 0)
        file = make_memory_file(file_bytes, seals);
    const auto datagram = input.rest();

    if (!send_datagram(sockets.sending.get(), datagram, file, descriptors))
        return 0; // larger than a socket takes
    require(socket_datagram_receive(sockets.receiving.get(), MSG_DONTWAIT, received) == 0,
            "what was sent is received");
    const auto message = socket_datagram_accept(received, ::getuid());
    require((message != nullptr) == is_message(datagram, file, descriptors), "a message is what the rules say");
    if (message != nullptr)
        expect_whole(*message, datagram);
    require(socket_datagram_accept(received, ::getuid() + 1) == nullptr, "another user sends nothing");
    return 0;
}
