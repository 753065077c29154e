#include "silent_peers.h"

#include <algorithm>
#include <vector>

#include "monotonic_clock.h"

namespace
{

constexpr std::size_t PEERS_LIMIT = 256;
constexpr std::int64_t ASK_INTERVAL_US = MICROSECONDS;
constexpr std::int64_t ANSWER_WAIT_US = 100'000;

struct silent_peer {
    mts_address_t address;
    datagram_peer peer;
    std::int64_t asked_us = 0; // for a sign of life; 0: not yet
};

std::vector<silent_peer> &silent_peers()
{
    static auto *const peers = new std::vector<silent_peer>; // never freed: exit handlers may still send
    return *peers;
}

auto find(mts_address_t address)
{
    return std::find_if(silent_peers().begin(), silent_peers().end(), [address](const silent_peer &one) {
        return one.address.node == address.node && one.address.sap == address.sap;
    });
}

bool is_listed(mts_address_t address)
{
    return find(address) != silent_peers().end();
}

// false when it cannot be asked; its queue is full, for instance.
bool ask_for_sign_of_life(mts_endpoint &endpoint, mts_address_t address)
{
    mts_frame_header header{};
    header.kind = mts_frame_kind::request;
    header.opcode = MTS_OPCODE_SIGN_OF_LIFE;
    return mts_endpoint_send(endpoint, address, header, {}, nullptr) == 0;
}

void wait_for_sign_of_life(mts_endpoint &endpoint, mts_address_t address)
{
    std::int64_t now = monotonic_us();
    const std::int64_t deadline = now + ANSWER_WAIT_US;
    for (; is_listed(address) && now < deadline; now = monotonic_us()) {
        if (auto message = mts_endpoint_receive(endpoint, mts_wanted::messages, now, deadline))
            mts_endpoint_keep(endpoint, std::move(message));
    }
}

} // namespace

void silent_peer_note(mts_address_t address, const datagram_peer &peer)
{
    silent_peer_heard(address);
    if (silent_peers().size() >= PEERS_LIMIT)
        silent_peers().erase(silent_peers().begin());
    silent_peers().push_back({address, peer});
}

void silent_peer_heard(mts_address_t address)
{
    if (silent_peers().empty())
        return;
    if (const auto found = find(address); found != silent_peers().end())
        silent_peers().erase(found);
}

bool is_silent_peer(mts_endpoint &endpoint, mts_address_t address)
{
    const auto found = find(address);
    if (found == silent_peers().end())
        return false;
    if (!card_datagram_driver->is_there(endpoint.port, address, found->peer)) {
        silent_peers().erase(found);
        return false;
    }
    const std::int64_t now = monotonic_us();
    if (found->asked_us != 0 && now - found->asked_us < ASK_INTERVAL_US)
        return true;
    found->asked_us = now;
    if (ask_for_sign_of_life(endpoint, address))
        wait_for_sign_of_life(endpoint, address);
    return is_listed(address);
}
