#include "mts_frame.h"

#include <cstdlib>
#include <cstring>

bool mts_frame_header_is_sound(const mts_frame_header &header)
{
    return header.magic == MTS_FRAME_MAGIC && header.version == MTS_FRAME_VERSION &&
           header.kind >= mts_frame_kind::unsolicited && header.kind <= mts_frame_kind::reject &&
           header.payload_bytes <= MTS_MAX_PAYLOAD_BYTES;
}

mts_block mts_payload_block(std::uint32_t payload_bytes)
{
    mts_block block(static_cast<std::uint8_t *>(std::malloc(payload_bytes + MTS_ZEROS_BEHIND_PAYLOAD)));
    if (block)
        std::memset(block.get() + payload_bytes, 0, MTS_ZEROS_BEHIND_PAYLOAD);
    return block;
}
