#include "mts_frame.h"

#include <cstring>
#include <new>

#include "monotonic_clock.h"

bool mts_frame_header_is_sound(const mts_frame_header &header)
{
    return header.magic == MTS_FRAME_MAGIC && header.version == MTS_FRAME_VERSION &&
           header.kind >= mts_frame_kind::unsolicited && header.kind <= mts_frame_kind::reject &&
           header.payload_bytes <= MTS_MAX_PAYLOAD_BYTES;
}

mts_held_message mts_message_for(const mts_frame_header &header)
{
    constexpr std::size_t ALIGNMENT = alignof(mts_message);
    const std::size_t payload_end = std::size_t{header.payload_bytes} + MTS_ZEROS_BEHIND_PAYLOAD;
    const std::size_t message_at = (payload_end + ALIGNMENT - 1) / ALIGNMENT * ALIGNMENT;
    auto *const block = static_cast<std::uint8_t *>(std::malloc(message_at + sizeof(mts_message)));
    if (block == nullptr)
        return nullptr;
    std::memset(block + header.payload_bytes, 0, MTS_ZEROS_BEHIND_PAYLOAD);
    return mts_held_message(new (block + message_at) mts_message{header, block, monotonic_us()});
}
