#include "card_transfers.h"

#include <memory>
#include <sys/random.h>

#include "monotonic_clock.h"
#include "mts_tools.h"

namespace
{

std::unique_ptr<file_transfers> &own_transfers()
{
    static std::unique_ptr<file_transfers> transfers;
    return transfers;
}

std::uint64_t random_id()
{
    std::uint64_t id = 0;
    if (::getrandom(&id, sizeof id, 0) != sizeof id)
        id = static_cast<std::uint64_t>(microseconds_of(CLOCK_REALTIME));
    return id;
}

} // namespace

void start_card_transfers()
{
    own_transfers().reset();
    remove_partial_files();
    own_transfers() = std::make_unique<file_transfers>(
        transfer_surroundings{.first_id = random_id(), .now_us = monotonic_us, .peer_at = [](mts_address_t at) {
                                  return mts_peer_at(at.node, at.sap);
                              }});
}

file_transfers *card_transfers()
{
    return own_transfers().get();
}
