#include "mts_endpoint.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <pthread.h>
#include <utility>

#include "bios_opcodes.h"
#include "c_boundary.h"
#include "chassis_dir.h"
#include "daemon_pulse.h"
#include "monotonic_clock.h"
#include "mts_tools.h"
#include "programming_child.h"
#include "silent_peers.h"

namespace
{

constexpr unsigned DRAINED_AFTER_DEADLINE = 64; // datagrams looked at in search of a message that is there already
constexpr std::size_t KEPT_MESSAGES_LIMIT = 1024;
constexpr std::uint64_t KEPT_BYTES_LIMIT = 2ull * MTS_MAX_PAYLOAD_BYTES;

using endpoint_table = std::vector<std::unique_ptr<mts_endpoint>>;

bool is_daemons_child = false; // forked from the process that had the daemon's endpoint

void abandon_all_in_child();
void unbind_all_at_exit();

// Made with the handlers that end it: of fork (the child has no endpoints) and of exit (no addresses are left
// behind).
endpoint_table &endpoints()
{
    static endpoint_table *const table = [] {
        (void)::pthread_atfork(nullptr, nullptr, abandon_all_in_child);
        (void)std::atexit(unbind_all_at_exit);
        return new endpoint_table; // never freed: exit handlers registered earlier may still come here
    }();
    return *table;
}

void abandon_all_in_child()
{
    for (auto &endpoint : endpoints()) {
        if (endpoint) {
            is_daemons_child = is_daemons_child || endpoint->address().sap == BIOS_DAEMON_SAP;
            card_datagram_driver->abandon(endpoint->port);
        }
        endpoint.reset();
    }
}

void unbind(std::unique_ptr<mts_endpoint> &endpoint)
{
    card_datagram_driver->unbind(endpoint->port);
    endpoint.reset();
}

void unbind_all_at_exit()
{
    for (auto &endpoint : endpoints()) {
        if (endpoint)
            (void)c_boundary([&] {
                unbind(endpoint);
                return 0;
            });
    }
}

// Repeated requests are not: a receiver that does not expect them would do its work twice.
bool is_wanted(mts_endpoint &endpoint, const mts_frame_header &header, mts_wanted wanted)
{
    if (header.kind == mts_frame_kind::request && header.opcode == MTS_OPCODE_SIGN_OF_LIFE) {
        (void)mts_endpoint_reject(endpoint, header); // who has asked may be gone
        return false;
    }
    if (header.kind == mts_frame_kind::request)
        return !endpoint.seen.repeats(header);
    return wanted == mts_wanted::everything || header.kind == mts_frame_kind::unsolicited;
}

} // namespace

std::int32_t mts_endpoint_bind(std::int32_t sap)
{
    auto endpoint = std::make_unique<mts_endpoint>();
    endpoint_table &table = endpoints();
    table.reserve(table.size() + 1);
    endpoint->port = card_datagram_driver->bind(mts_node_of_slot(chassis_own_slot()), sap);
    if (endpoint->port == nullptr)
        return -1;
    table.push_back(std::move(endpoint));
    // The daemon forks to program, and only such a child has an endpoint of its own.
    if (std::exchange(is_daemons_child, false))
        programming_child_mark();
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
    if (mts_endpoint_of(handle) != nullptr)
        unbind(endpoints()[static_cast<std::size_t>(handle)]);
}

mts_held_message mts_endpoint_receive(mts_endpoint &endpoint, mts_wanted wanted, std::int64_t now,
                                      std::int64_t deadline)
{
    if (endpoint.address().sap == BIOS_DAEMON_SAP)
        note_daemon_pulse();
    unsigned late = 0;
    for (;;) {
        auto message = card_datagram_driver->receive(endpoint.port, deadline - now);
        if (message)
            silent_peer_heard({message->header.source_node, message->header.source_sap});
        if (message && is_wanted(endpoint, message->header, wanted))
            return message;
        const int failure = message ? EBADMSG : errno;
        if (failure == EINTR) {
            errno = MTS_ERRNO_INTERRUPTED;
            return nullptr;
        }
        if (failure != EAGAIN && failure != EBADMSG) {
            errno = failure;
            return nullptr;
        }
        now = monotonic_us();
        if (now >= deadline && (failure == EAGAIN || ++late > DRAINED_AFTER_DEADLINE)) {
            errno = MTS_ERRNO_TIMED_OUT;
            return nullptr;
        }
    }
}

bool mts_seen_requests::repeats(const mts_frame_header &header)
{
    const seen_request request = {header.request_id, header.source_node, header.source_sap};
    if (header.kind != mts_frame_kind::request || request.id == 0)
        return false;
    if (std::find(requests_.begin(), requests_.end(), request) != requests_.end())
        return true;
    requests_[next_] = request;
    next_ = (next_ + 1) % requests_.size();
    return false;
}

void mts_endpoint_keep(mts_endpoint &endpoint, mts_held_message message)
{
    const std::uint32_t bytes = message->header.payload_bytes;
    if (endpoint.kept.size() >= KEPT_MESSAGES_LIMIT || endpoint.kept_bytes + bytes > KEPT_BYTES_LIMIT) {
        if (message->header.kind == mts_frame_kind::request)
            (void)mts_endpoint_reject(endpoint, message->header); // whoever does not read waits in vain
        return;
    }
    endpoint.kept.push_back(std::move(message));
    endpoint.kept_bytes += bytes;
}

mts_held_message mts_endpoint_take_kept(mts_endpoint &endpoint)
{
    if (endpoint.kept.empty())
        return nullptr;
    mts_held_message message = std::move(endpoint.kept.front());
    endpoint.kept.pop_front();
    endpoint.kept_bytes -= message->header.payload_bytes;
    return message;
}

int mts_endpoint_reject(mts_endpoint &endpoint, const mts_frame_header &request)
{
    mts_frame_header header{};
    header.kind = mts_frame_kind::reject;
    header.opcode = request.opcode;
    header.request_id = request.request_id;
    return mts_endpoint_send(endpoint, {request.source_node, request.source_sap}, header, {}, nullptr);
}

int mts_endpoint_send(mts_endpoint &endpoint, mts_address_t to, mts_frame_header header, const mts_payload &payload,
                      datagram_peer *peer_out)
{
    if (payload.size() > MTS_MAX_PAYLOAD_BYTES) {
        errno = EMSGSIZE;
        return -1;
    }
    const mts_address_t source = endpoint.address();
    header.magic = MTS_FRAME_MAGIC;
    header.version = MTS_FRAME_VERSION;
    header.source_node = source.node;
    header.source_sap = source.sap;
    header.payload_bytes = static_cast<std::uint32_t>(payload.size());
    const bool sent = to.node == MTS_NODE_LISTENERS
                          ? card_datagram_driver->send_to_listeners(endpoint.port, header, payload)
                          : card_datagram_driver->send(endpoint.port, to, header, payload, peer_out);
    return sent ? 0 : -1;
}
