// The daemon's function asks the card's SPROM where one id has several board variants, and logs what it does. Here
// these calls are answered as the family's own card would answer them, and nothing is logged.
#include "family_cards.h"

#include <cstring>

#include "bios_log.h"
#include "card_families.h"
#include "card_identification.h"
#include "image_error.h"
#include "pfm.h"
#include "sprom.h"

namespace
{

constexpr std::uint32_t CARD_IDS_END = 0x10000;
constexpr std::size_t HW_CHANGE_BIT_OFFSET = 174; // little-endian word of an SPROM

std::uint32_t hw_change_bit_now = 0;

} // namespace

void bios_log(const char *, int, const char *, ...) {}

int32_t get_card_module_info(card_module_info_t *)
{
    return -1; // no card
}

int32_t sprom_init_dev(uint32_t, uint32_t, uint32_t, uint32_t)
{
    return 0;
}

int32_t sprom_cleanup_dev(uint32_t, uint32_t, uint32_t, uint32_t)
{
    return 0;
}

int32_t sse_call(uint32_t, void *request)
{
    sse_sprom_read_request_t read;
    std::memcpy(&read, request, sizeof read);
    auto *word = static_cast<std::uint8_t *>(read.destination) + HW_CHANGE_BIT_OFFSET;
    for (unsigned byte = 0; byte < sizeof hw_change_bit_now; ++byte)
        word[byte] = static_cast<std::uint8_t>(hw_change_bit_now >> 8 * byte);
    return 0;
}

family_cards cards_of_family(const std::string &name)
{
    const card_family *family = find_card_family(name);
    if (family == nullptr)
        throw image_error("unknown family: " + name + "; chassis families lists them");
    hw_change_bit_now = family->hw_change_bit.value_or(0);
    family_cards cards = {.family = get_sw_card_family(family->card_id), .card_ids = {}};
    for (std::uint32_t id = 1; id < CARD_IDS_END; ++id) {
        if (get_sw_card_family(id) == cards.family)
            cards.card_ids.push_back(static_cast<std::uint16_t>(id));
    }
    return cards;
}
