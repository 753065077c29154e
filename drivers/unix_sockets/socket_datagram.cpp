#include "socket_datagram.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>

#include "monotonic_clock.h"
#include "read_all_at.h"
#include "write_all.h"

namespace
{

// Without these the sender could still change or shorten the file under the reader.
constexpr int NEEDED_SEALS = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE;

void take_descriptors(const cmsghdr &control, socket_datagram &datagram)
{
    const std::size_t count = (control.cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (std::size_t index = 0; index < count; ++index) {
        int descriptor = -1;
        std::memcpy(&descriptor, CMSG_DATA(&control) + index * sizeof(int), sizeof descriptor);
        datagram.memory_file.reset(descriptor);
        ++datagram.descriptors;
    }
}

// The system notes arrivals by the clock that can be set.
std::int64_t time_since(const cmsghdr &control)
{
    timespec came;
    std::memcpy(&came, CMSG_DATA(&control), sizeof came);
    const std::int64_t came_us = std::int64_t{came.tv_sec} * MICROSECONDS + came.tv_nsec / 1000;
    return std::max<std::int64_t>(microseconds_of(CLOCK_REALTIME) - came_us, 0);
}

void take_control(msghdr &received, socket_datagram &datagram)
{
    for (cmsghdr *control = CMSG_FIRSTHDR(&received); control != nullptr;
         control = CMSG_NXTHDR(&received, control)) {
        if (control->cmsg_level != SOL_SOCKET)
            continue;
        if (control->cmsg_type == SCM_RIGHTS)
            take_descriptors(*control, datagram);
        if (control->cmsg_type == SCM_CREDENTIALS && control->cmsg_len >= CMSG_LEN(sizeof(ucred))) {
            ucred credentials;
            std::memcpy(&credentials, CMSG_DATA(control), sizeof credentials);
            datagram.sender = credentials.uid;
        }
        if (control->cmsg_type == SCM_TIMESTAMPNS && control->cmsg_len >= CMSG_LEN(sizeof(timespec)))
            datagram.queued_us = time_since(*control);
    }
}

// The lengths agree, and the payload is where its length says that it must be.
bool payload_is_sound(const socket_datagram &datagram)
{
    const mts_frame_header &header = datagram.frame.header;
    const std::size_t behind_header = datagram.bytes - sizeof header;
    if (header.place == mts_frame_place::in_datagram)
        return datagram.descriptors == 0 && behind_header == header.payload_bytes;
    return header.place == mts_frame_place::memory_file && datagram.descriptors == 1 && behind_header == 0 &&
           header.payload_bytes > INLINE_PAYLOAD_BYTES;
}

// Copied and not mapped: a fault while reading is an error here and would be a signal in a mapping.
bool read_memory_file(int file, std::uint8_t *destination, std::size_t bytes)
{
    struct stat facts;
    const int seals = ::fcntl(file, F_GET_SEALS);
    if (seals < 0 || (seals & NEEDED_SEALS) != NEEDED_SEALS || ::fstat(file, &facts) != 0 ||
        facts.st_size != static_cast<off_t>(bytes))
        return false;
    return read_all_at(file, 0, destination, bytes);
}

} // namespace

int socket_datagram_receive(int socket, int flags, socket_datagram &datagram)
{
    // Room for a few descriptors, so that a wrong number of them is seen; the system closes those without room.
    alignas(cmsghdr) char
        control[CMSG_SPACE(sizeof(ucred)) + 2 * CMSG_SPACE(2 * sizeof(std::int64_t)) + CMSG_SPACE(4 * sizeof(int))];
    iovec room = {&datagram.frame, sizeof datagram.frame};
    msghdr received{};
    received.msg_iov = &room;
    received.msg_iovlen = 1;
    received.msg_control = control;
    received.msg_controllen = sizeof control;
    const ssize_t got = ::recvmsg(socket, &received, flags | MSG_CMSG_CLOEXEC);
    if (got < 0)
        return -1;
    datagram.bytes = static_cast<std::size_t>(got);
    datagram.cut = (received.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0;
    datagram.sender = static_cast<uid_t>(-1);
    datagram.queued_us = 0;
    datagram.memory_file.reset();
    datagram.descriptors = 0;
    take_control(received, datagram);
    return 0;
}

mts_held_message socket_datagram_accept(socket_datagram &datagram, uid_t user)
{
    const unique_fd memory_file = std::move(datagram.memory_file);
    const mts_frame_header &header = datagram.frame.header;
    if (datagram.sender != user || datagram.cut || datagram.bytes < sizeof header)
        return nullptr;
    if (!mts_frame_header_is_sound(header) || !payload_is_sound(datagram))
        return nullptr;

    mts_held_message message = mts_message_for(header);
    if (!message)
        return nullptr;
    message->came_us -= datagram.queued_us;
    if (header.place == mts_frame_place::in_datagram)
        std::memcpy(message->payload, datagram.frame.payload, header.payload_bytes);
    else if (!read_memory_file(memory_file.get(), message->payload, header.payload_bytes))
        return nullptr;
    return message;
}

unique_fd payload_memory_file(const mts_payload &payload)
{
    unique_fd file(::memfd_create("mts-payload", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!file || !write_all(file.get(), payload.head, payload.head_bytes) ||
        !write_all(file.get(), payload.body, payload.body_bytes) ||
        ::fcntl(file.get(), F_ADD_SEALS, NEEDED_SEALS | F_SEAL_SEAL) != 0)
        return unique_fd();
    return file;
}
