#include "refused_messages.h"

#include <bit>
#include <cinttypes>
#include <cstdio>

#include "c_boundary.h"
#include "line_file.h"

void note_refused_message(mts_address_t endpoint, std::uint64_t count, uid_t sender) noexcept
{
    if (!std::has_single_bit(count))
        return;
    best_effort([&] { // the caller's business is the next message
        char text[96];
        (void)std::snprintf(text, sizeof text, "%08x.%08x %" PRIu64 " %u", endpoint.node, endpoint.sap, count,
                            static_cast<unsigned>(sender));
        (void)append_line("transport/refused", text); // what cannot be written is left out
    });
}
