#include "mts_endpoint.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <pthread.h>
#include <sys/time.h>

#include "c_boundary.h"
#include "chassis_dir.h"
#include "mts_tools.h"
#include "refused_messages.h"

namespace
{

constexpr std::int64_t MICROSECONDS = 1'000'000;
constexpr std::int64_t LONGEST_SOCKET_WAIT_US = 3600 * MICROSECONDS; // fits the system's record in 32 bits too
constexpr unsigned DRAINED_AFTER_DEADLINE = 64; // datagrams looked at in search of a message that is there already
constexpr std::size_t KEPT_MESSAGES_LIMIT = 1024;
constexpr std::uint64_t KEPT_BYTES_LIMIT = 2ull * MTS_MAX_PAYLOAD_BYTES;

using endpoint_table = std::vector<std::unique_ptr<mts_endpoint>>;

void close_all_in_child();
void remove_all_at_exit();

// Made with the handlers that end it: of fork (the child has no endpoints) and of exit (no files are left behind).
endpoint_table &endpoints()
{
    static endpoint_table *const table = [] {
        (void)::pthread_atfork(nullptr, nullptr, close_all_in_child);
        (void)std::atexit(remove_all_at_exit);
        return new endpoint_table; // never freed: exit handlers registered earlier may still come here
    }();
    return *table;
}

void close_all_in_child()
{
    for (auto &endpoint : endpoints())
        endpoint.reset();
}

void remove_files(const mts_endpoint &endpoint)
{
    for (const std::uint32_t opcode : endpoint.listens)
        mts_listener_remove(endpoint.directory.get(), {opcode, endpoint.address});
    mts_directory_remove(endpoint.directory.get(), endpoint.address);
}

void remove_all_at_exit()
{
    for (const auto &endpoint : endpoints()) {
        if (endpoint)
            (void)c_boundary([&] {
                remove_files(*endpoint);
                return 0;
            });
    }
}

unique_fd receiving_socket()
{
    unique_fd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    if (socket && ::setsockopt(socket.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0)
        return unique_fd();
    return socket;
}

int bind_address(mts_endpoint &endpoint, std::int32_t sap)
{
    const unique_fd lock = mts_directory_lock(endpoint.directory.get());
    if (!lock)
        return -1;
    if (sap == -1)
        return mts_directory_bind_ephemeral(endpoint.directory.get(), lock.get(), endpoint.socket.get(),
                                            endpoint.address.node, endpoint.address.sap);
    endpoint.address.sap = static_cast<std::uint32_t>(sap);
    return mts_directory_bind(endpoint.directory.get(), endpoint.socket.get(), endpoint.address);
}

// One buffer for the process: a datagram is copied out of it before the next one is read.
mts_datagram &arrival()
{
    static const std::unique_ptr<mts_datagram> datagram = std::make_unique<mts_datagram>();
    return *datagram;
}

// The wait limit of a loop is the same from call to call: the socket is told only when it differs.
int wait_at_most(mts_endpoint &endpoint, std::int64_t wait_us)
{
    if (wait_us == endpoint.socket_wait_us)
        return 0;
    timeval limit{};
    limit.tv_sec = static_cast<decltype(limit.tv_sec)>(wait_us / MICROSECONDS);
    limit.tv_usec = static_cast<decltype(limit.tv_usec)>(wait_us % MICROSECONDS);
    if (::setsockopt(endpoint.socket.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0)
        return -1;
    endpoint.socket_wait_us = wait_us;
    return 0;
}

// Reads a datagram into arrival(). 0, or -1 with errno (EAGAIN: none came).
int receive_within(mts_endpoint &endpoint, std::int64_t wait_us)
{
    if (wait_us <= 0)
        return mts_datagram_receive(endpoint.socket.get(), MSG_DONTWAIT, arrival());
    if (wait_at_most(endpoint, wait_us < LONGEST_SOCKET_WAIT_US ? wait_us : LONGEST_SOCKET_WAIT_US) != 0)
        return -1;
    return mts_datagram_receive(endpoint.socket.get(), 0, arrival());
}

// Repeated requests are not: a receiver that does not expect them would do its work twice.
bool is_wanted(mts_endpoint &endpoint, const mts_frame_header &header, mts_wanted wanted)
{
    if (header.kind == mts_frame_kind::request)
        return !endpoint.seen.repeats(header);
    return wanted == mts_wanted::everything || header.kind == mts_frame_kind::unsolicited;
}

} // namespace

std::int32_t mts_endpoint_bind(std::int32_t sap, const char *name)
{
    auto endpoint = std::make_unique<mts_endpoint>();
    endpoint->directory = mts_directory_open();
    if (!endpoint->directory)
        return -1;
    endpoint->socket = receiving_socket();
    if (!endpoint->socket)
        return -1;
    endpoint->user = ::geteuid();
    endpoint->name = name != nullptr ? name : "";
    endpoint->address.node = mts_node_of_slot(chassis_own_slot());
    endpoint_table &table = endpoints();
    table.reserve(table.size() + 1);
    if (bind_address(*endpoint, sap) != 0)
        return -1;
    table.push_back(std::move(endpoint));
    return static_cast<std::int32_t>(table.size() - 1);
}

mts_endpoint *mts_endpoint_of(std::int32_t handle)
{
    const endpoint_table &table = endpoints();
    if (handle >= 0 && static_cast<std::size_t>(handle) < table.size()) {
        if (mts_endpoint *endpoint = table[static_cast<std::size_t>(handle)].get())
            return endpoint;
    }
    errno = EBADF;
    return nullptr;
}

void mts_endpoint_unbind(std::int32_t handle)
{
    const mts_endpoint *endpoint = mts_endpoint_of(handle);
    if (endpoint == nullptr)
        return;
    remove_files(*endpoint);
    endpoints()[static_cast<std::size_t>(handle)].reset();
}

std::int64_t mts_now_us()
{
    timespec now{};
    (void)::clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * MICROSECONDS + now.tv_nsec / 1000;
}

std::unique_ptr<mts_message> mts_endpoint_receive(mts_endpoint &endpoint, mts_wanted wanted, std::int64_t now,
                                                  std::int64_t deadline)
{
    unsigned late = 0;
    for (;;) {
        if (auto message = endpoint.late.take_due(now)) {
            if (is_wanted(endpoint, message->header, wanted))
                return message;
            continue;
        }
        const int result = receive_within(endpoint, endpoint.late.next_due(deadline) - now);
        if (result == 0) {
            if (arrival().sender != endpoint.user)
                mts_note_refused(endpoint.address, ++endpoint.refused, arrival().sender);
            auto message = mts_datagram_accept(arrival(), endpoint.user);
            if (message)
                message = mts_faults_pass(std::move(message), endpoint.address, ++endpoint.arrivals, endpoint.late);
            if (message && is_wanted(endpoint, message->header, wanted))
                return message;
        } else if (errno == EINTR) {
            errno = MTS_ERRNO_INTERRUPTED;
            return nullptr;
        } else if (errno != EAGAIN) {
            return nullptr;
        }
        now = mts_now_us();
        if (now >= deadline && (result != 0 || ++late > DRAINED_AFTER_DEADLINE)) {
            errno = MTS_ERRNO_TIMED_OUT;
            return nullptr;
        }
    }
}

bool mts_seen_requests::repeats(const mts_frame_header &header)
{
    const seen_request request = {header.source_node, header.source_sap, header.request_id};
    if (header.kind != mts_frame_kind::request || request.id == 0)
        return false;
    if (std::find(requests_.begin(), requests_.end(), request) != requests_.end())
        return true;
    requests_[next_] = request;
    next_ = (next_ + 1) % requests_.size();
    return false;
}

void mts_endpoint_keep(mts_endpoint &endpoint, std::unique_ptr<mts_message> message)
{
    const std::uint32_t bytes = message->header.payload_bytes;
    if (endpoint.kept.size() >= KEPT_MESSAGES_LIMIT || endpoint.kept_bytes + bytes > KEPT_BYTES_LIMIT)
        return;
    endpoint.kept.push_back(std::move(message));
    endpoint.kept_bytes += bytes;
}

std::unique_ptr<mts_message> mts_endpoint_take_kept(mts_endpoint &endpoint)
{
    if (endpoint.kept.empty())
        return nullptr;
    std::unique_ptr<mts_message> message = std::move(endpoint.kept.front());
    endpoint.kept.pop_front();
    endpoint.kept_bytes -= message->header.payload_bytes;
    return message;
}
