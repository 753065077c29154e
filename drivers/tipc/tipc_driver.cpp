#include "tipc_driver.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/random.h>

#include "chassis_key.h"
#include "monotonic_clock.h"
#include "tipc_names.h"
#include "tipc_port.h"

namespace
{

constexpr std::int32_t DRIVERS_CHOICE = -1;
constexpr unsigned CHOICES = 64;       // of an address, before it is said that there is none
constexpr std::size_t FOUND_KEPT = 64; // addresses whose sockets are known
constexpr std::int64_t UNBIND_US = 2 * MICROSECONDS;
constexpr std::int64_t LINK_LOOK_US = 20'000;
// A card that is not reached may have lost its link only. Nobody waits for it longer than this.
constexpr std::int64_t LOST_US = 3 * MICROSECONDS;
constexpr std::int64_t FORGET_US = 3600 * MICROSECONDS; // nobody asks for them any more

bool prepare_descriptors(tipc_port &port)
{
    port.waiting.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    port.arrival.reset(::epoll_create1(EPOLL_CLOEXEC));
    if (!port.waiting || !port.arrival)
        return false;
    epoll_event event{};
    event.events = EPOLLIN;
    return ::epoll_ctl(port.arrival.get(), EPOLL_CTL_ADD, port.socket.get(), &event) == 0 &&
           ::epoll_ctl(port.arrival.get(), EPOLL_CTL_ADD, port.waiting.get(), &event) == 0;
}

// Whether another socket of ours has the address. true also when that cannot be found out.
bool is_taken(const tipc_port &port, mts_address_t address)
{
    const auto found = find_proved(address_range(address), *port.key);
    const bool taken = !found || std::ranges::any_of(*found, [&port](const tipc_publication &each) {
        return each.socket != port.id;
    });
    if (taken)
        errno = EADDRINUSE;
    return taken;
}

// Looked at before and behind: of two processes that take an address at once at most one has it.
bool take_address(tipc_port &port, std::uint32_t sap)
{
    const mts_address_t address = {port.address.node, sap};
    if (is_taken(port, address) || !tipc_bind(port.socket.get(), {TIPC_ADDRESS_TYPE + sap, address.node}) ||
        is_taken(port, address))
        return false;
    port.address.sap = sap;
    return true;
}

bool choose_address(tipc_port &port)
{
    for (unsigned choice = 0; choice < CHOICES; ++choice) {
        std::uint32_t number = 0;
        if (::getrandom(&number, sizeof number, 0) != static_cast<ssize_t>(sizeof number))
            return false;
        if (take_address(port, DATAGRAM_FIRST_CHOSEN_SAP + number % (TIPC_SAPS - DATAGRAM_FIRST_CHOSEN_SAP)))
            return true;
    }
    return false;
}

tipc_port *bind(std::uint32_t node, std::int32_t sap)
{
    auto port = std::make_unique<tipc_port>();
    port->key = chassis_key();
    if (port->key == nullptr)
        return nullptr;
    if (sap != DRIVERS_CHOICE && static_cast<std::uint32_t>(sap) >= TIPC_SAPS) {
        errno = EINVAL;
        return nullptr;
    }
    port->address.node = node;
    port->socket = tipc_datagram_socket();
    if (!port->socket || !tipc_own_id(port->socket.get(), port->id) ||
        !publish_proof(port->socket.get(), *port->key) || !prepare_descriptors(*port))
        return nullptr;
    const bool is_bound =
        sap == DRIVERS_CHOICE ? choose_address(*port) : take_address(*port, static_cast<std::uint32_t>(sap));
    return is_bound ? port.release() : nullptr;
}

// Messages that were begun go to their ends first, for a while.
void unbind(tipc_port *port)
{
    const std::int64_t deadline = monotonic_us() + UNBIND_US;
    const auto has_unsent = [port] {
        return std::ranges::any_of(port->receivers, [](const auto &each) { return !each.second.unsent.empty(); });
    };
    while (has_unsent() && monotonic_us() < deadline) {
        (void)go_on_sending(*port);
        if (take_datagram(*port) == tipc_taking::none) {
            pollfd arrival = {port->socket.get(), POLLIN, 0};
            (void)::poll(&arrival, 1, LINK_LOOK_US / 1000);
        }
    }
    delete port;
}

void abandon(tipc_port *port)
{
    delete port;
}

mts_address_t address(const tipc_port *port)
{
    return port->address;
}

int descriptor(const tipc_port *port)
{
    return port->arrival.get();
}

mts_held_message receive(tipc_port *port, std::int64_t wait_us)
{
    const std::int64_t deadline = monotonic_us() + wait_us;
    for (;;) {
        if (auto message = take_message(*port))
            return message;
        const tipc_taking taking = take_datagram(*port);
        if (taking == tipc_taking::dropped) {
            errno = EBADMSG;
            return nullptr;
        }
        const bool has_waiting = go_on_sending(*port);
        if (taking == tipc_taking::taken)
            continue;
        std::int64_t left_us = deadline - monotonic_us();
        if (left_us <= 0) {
            errno = EAGAIN;
            return nullptr;
        }
        if (has_waiting)
            left_us = std::min(left_us, LINK_LOOK_US);
        pollfd arrival = {port->socket.get(), POLLIN, 0};
        const timespec limit = {static_cast<time_t>(left_us / MICROSECONDS),
                                static_cast<long>(left_us % MICROSECONDS * 1000)};
        if (::ppoll(&arrival, 1, &limit, nullptr) < 0)
            return nullptr;
    }
}

datagram_peer peer_of(tipc_socket_id id)
{
    return {.word = {id.node, id.ref, 0}, .bound_at_s = made_at_s(id)};
}

tipc_socket_id id_of(const datagram_peer &peer)
{
    return {static_cast<std::uint32_t>(peer.word[0]), static_cast<std::uint32_t>(peer.word[1])};
}

// Who has an address. None with errno: ECONNREFUSED when nobody has.
std::optional<datagram_peer> look_up(const shared_key &key, mts_address_t address)
{
    if (address.sap < TIPC_SAPS) {
        const auto found = find_proved(address_range(address), key);
        if (!found)
            return std::nullopt;
        if (!found->empty())
            return peer_of(found->front().socket);
    }
    errno = ECONNREFUSED;
    return std::nullopt;
}

std::optional<datagram_peer> known_peer(tipc_port &port, mts_address_t address)
{
    const std::pair key(address.node, address.sap);
    if (const auto known = port.found.find(key); known != port.found.end())
        return known->second;
    const auto peer = look_up(*port.key, address);
    if (!peer)
        return std::nullopt;
    if (port.found.size() >= FOUND_KEPT)
        port.found.clear();
    port.found.emplace(key, *peer);
    return peer;
}

// A receiver that is known to be gone, and those that nothing is on its way to any more when there are many.
void forget_receivers(tipc_port &port)
{
    std::erase_if(port.receivers, [&port](const auto &each) {
        return each.second.is_gone || (port.receivers.size() > FOUND_KEPT && each.second.under_way == 0);
    });
}

bool send(tipc_port *port, mts_address_t to, const mts_frame_header &header, const mts_payload &payload,
          datagram_peer *peer_out)
{
    if (payload.size() > MTS_MAX_PAYLOAD_BYTES) {
        errno = EMSGSIZE;
        return false;
    }
    // One that is known may be gone and have a successor: once more.
    for (unsigned attempt = 0; attempt < 2; ++attempt) {
        const auto peer = known_peer(*port, to);
        if (!peer)
            return false;
        if (send_to_socket(*port, id_of(*peer), header, payload)) {
            if (peer_out != nullptr)
                *peer_out = *peer;
            return true;
        }
        if (errno != ECONNREFUSED)
            return false;
        port->found.erase({to.node, to.sap});
        forget_receivers(*port);
    }
    errno = ECONNREFUSED;
    return false;
}

bool is_there(tipc_port *port, mts_address_t peers_address, const datagram_peer &peer)
{
    const tipc_socket_id id = id_of(peer);
    const tipc_range range[] = {address_range(peers_address)};
    const auto found = find_publications(range);
    if (!found || std::ranges::any_of(found->front(), [id](const auto &each) { return each.socket == id; })) {
        port->lost.erase(id);
        return true;
    }
    if (id.node == port->id.node || is_node_up(id.node)) {
        port->lost.erase(id);
        return false;
    }
    const std::int64_t now = monotonic_us();
    if (port->lost.size() >= FOUND_KEPT)
        std::erase_if(port->lost, [now](const auto &each) { return now - each.second >= FORGET_US; });
    return now - port->lost.try_emplace(id, now).first->second < LOST_US;
}

bool is_bound(mts_address_t asked, datagram_peer *peer_out)
{
    const shared_key *key = chassis_key();
    const auto peer = key != nullptr ? look_up(*key, asked) : std::nullopt;
    if (peer && peer_out != nullptr)
        *peer_out = *peer;
    return peer.has_value();
}

std::vector<std::uint32_t> nodes_with(std::uint32_t sap)
{
    std::vector<std::uint32_t> nodes;
    const shared_key *key = chassis_key();
    if (key == nullptr || sap >= TIPC_SAPS)
        return nodes;
    const auto found = find_proved({TIPC_ADDRESS_TYPE + sap, 0, UINT32_MAX}, *key);
    for (const tipc_publication &each : found.value_or(std::vector<tipc_publication>{}))
        nodes.push_back(each.instance);
    std::ranges::sort(nodes);
    nodes.erase(std::unique(nodes.begin(), nodes.end()), nodes.end());
    return nodes;
}

bool listen(tipc_port *port, std::uint32_t opcode)
{
    if (std::ranges::find(port->listens, opcode) != port->listens.end())
        return true;
    if (opcode >= TIPC_SAPS) {
        errno = EINVAL;
        return false;
    }
    if (!tipc_bind(port->socket.get(), {TIPC_LISTENER_TYPE + opcode, port->address.node}))
        return false;
    port->listens.push_back(opcode);
    return true;
}

bool send_to_listeners(tipc_port *port, const mts_frame_header &header, const mts_payload &payload)
{
    if (payload.size() > MTS_MAX_PAYLOAD_BYTES) {
        errno = EMSGSIZE;
        return false;
    }
    const auto listeners = find_proved({TIPC_LISTENER_TYPE + header.opcode, 0, UINT32_MAX}, *port->key);
    if (!listeners)
        return false;
    for (const tipc_publication &listener : *listeners)
        (void)send_to_socket(*port, listener.socket, header, payload); // each gets it or not by itself
    forget_receivers(*port);
    return true;
}

tipc_port *own(datagram_port *port)
{
    return reinterpret_cast<tipc_port *>(port);
}

const tipc_port *own(const datagram_port *port)
{
    return reinterpret_cast<const tipc_port *>(port);
}

} // namespace

const datagram_driver tipc_driver = {
    .name = "tipc",
    .bind = [](std::uint32_t node, std::int32_t sap) { return reinterpret_cast<datagram_port *>(bind(node, sap)); },
    .unbind = [](datagram_port *port) { unbind(own(port)); },
    .abandon = [](datagram_port *port) { abandon(own(port)); },
    .address = [](const datagram_port *port) { return address(own(port)); },
    .descriptor = [](const datagram_port *port) { return descriptor(own(port)); },
    .receive = [](datagram_port *port, std::int64_t wait_us) { return receive(own(port), wait_us); },
    .send = [](datagram_port *port, mts_address_t to, const mts_frame_header &header, const mts_payload &payload,
               datagram_peer *peer_out) { return send(own(port), to, header, payload, peer_out); },
    .is_there = [](datagram_port *port, mts_address_t address,
                   const datagram_peer &peer) { return is_there(own(port), address, peer); },
    .is_bound = is_bound,
    .nodes_with = nodes_with,
    .listen = [](datagram_port *port, std::uint32_t opcode) { return listen(own(port), opcode); },
    .send_to_listeners = [](datagram_port *port, const mts_frame_header &header,
                            const mts_payload &payload) { return send_to_listeners(own(port), header, payload); },
};
