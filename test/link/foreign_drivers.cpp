// The network of another card, which has nobody but the card itself.
#include <cerrno>
#include <ctime>
#include <map>

#include "datagram_driver.h"

struct datagram_port {
    mts_address_t address{};
};

namespace
{

std::map<std::uint32_t, datagram_port *> bound_ports; // by sap

datagram_port *bind(std::uint32_t node, std::int32_t sap)
{
    static std::uint32_t next_sap = DATAGRAM_FIRST_CHOSEN_SAP;
    const std::uint32_t own_sap = sap >= 0 ? static_cast<std::uint32_t>(sap) : next_sap++;
    auto [place, is_free] = bound_ports.emplace(own_sap, nullptr);
    if (!is_free) {
        errno = EADDRINUSE;
        return nullptr;
    }
    place->second = new datagram_port{{node, own_sap}};
    return place->second;
}

void unbind(datagram_port *port)
{
    bound_ports.erase(port->address.sap);
    delete port;
}

void abandon(datagram_port *port)
{
    unbind(port); // the child has a copy of all of it
}

mts_address_t address(const datagram_port *port)
{
    return port->address;
}

int descriptor(const datagram_port *)
{
    return -1;
}

mts_held_message receive(datagram_port *, std::int64_t wait_us)
{
    if (wait_us > 0) {
        timespec wait{};
        wait.tv_sec = static_cast<decltype(wait.tv_sec)>(wait_us / 1'000'000);
        wait.tv_nsec = static_cast<decltype(wait.tv_nsec)>(wait_us % 1'000'000 * 1000);
        if (::nanosleep(&wait, nullptr) != 0)
            return nullptr;
    }
    errno = EAGAIN;
    return nullptr;
}

bool send(datagram_port *, mts_address_t, const mts_frame_header &, const mts_payload &, datagram_peer *)
{
    errno = ECONNREFUSED;
    return false;
}

bool is_there(datagram_port *, mts_address_t, const datagram_peer &)
{
    return false;
}

bool is_bound(mts_address_t asked, datagram_peer *)
{
    return bound_ports.contains(asked.sap);
}

std::vector<std::uint32_t> nodes_with(std::uint32_t sap)
{
    const auto found = bound_ports.find(sap);
    return found == bound_ports.end() ? std::vector<std::uint32_t>{} : std::vector{found->second->address.node};
}

bool listen(datagram_port *, std::uint32_t)
{
    return true;
}

bool send_to_listeners(datagram_port *, const mts_frame_header &, const mts_payload &)
{
    return true;
}

constexpr datagram_driver NOBODY_ELSE = {
    .name = "nobody_else",
    .bind = bind,
    .unbind = unbind,
    .abandon = abandon,
    .address = address,
    .descriptor = descriptor,
    .receive = receive,
    .send = send,
    .is_there = is_there,
    .is_bound = is_bound,
    .nodes_with = nodes_with,
    .listen = listen,
    .send_to_listeners = send_to_listeners,
};

} // namespace

const datagram_driver *const card_datagram_driver = &NOBODY_ELSE;
