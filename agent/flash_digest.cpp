#include "flash_digest.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "card_facts.h"
#include "chassis_dir.h"
#include "flash_device.h"
#include "sha256.h"

namespace
{

constexpr std::uint32_t PIECE_BYTES = 64 << 10;
constexpr std::uint8_t ERASED = 0xff;

// Calls use(bytes, count) for the pieces between two offsets. false when a piece cannot be read.
template<class Use>
bool read_pieces(flash_device &flash, std::uint32_t begin, std::uint32_t end, Use use)
{
    std::vector<std::uint8_t> piece(PIECE_BYTES);
    for (std::uint32_t at = begin; at < end;) {
        const std::uint32_t count = std::min(PIECE_BYTES, end - at);
        if (!flash.read(at, piece.data(), count))
            return false;
        use(piece.data(), count);
        at += count;
    }
    return true;
}

} // namespace

answer digest_answer(const agent_flash_digest_req_t &request)
{
    const std::uint32_t instance = request.instance.load();
    const auto flash = flash_device::open(instance, flash_access::read);
    if (!flash)
        return AGENT_ERR_FLASH;
    const std::uint32_t size = flash->geometry().size_bytes;
    if (request.bytes.load() > size)
        return AGENT_ERR_REQUEST;
    const auto end = static_cast<std::uint32_t>(request.bytes.load());

    std::uint32_t state = flash_state_of(instance);
    sha256 sum;
    bool is_erased = true;
    if (!read_pieces(*flash, 0, end,
                     [&](const std::uint8_t *bytes, std::uint32_t count) { sum.add(bytes, count); }))
        return AGENT_ERR_UNREADABLE;
    const auto look = [&](const std::uint8_t *bytes, std::uint32_t count) {
        is_erased =
            is_erased && std::all_of(bytes, bytes + count, [](std::uint8_t byte) { return byte == ERASED; });
    };
    if (!read_pieces(*flash, end, size, look))
        return AGENT_ERR_UNREADABLE;
    state |= flash_state_of(instance);

    agent_flash_digest_t told{};
    const sha256_digest digest = sum.digest();
    std::memcpy(told.sha256, digest.data(), sizeof told.sha256);
    told.rest_is_erased = be32::of(is_erased ? 1 : 0);
    told.state = be32::of(state);
    answer given;
    given.add(told);
    return given;
}
