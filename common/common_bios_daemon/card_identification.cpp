#include "card_identification.h"

#include <cerrno>
#include <cstring>

#include "bios_log.h"
#include "pfm.h"
#include "sprom.h"

namespace
{

struct card_family {
    std::uint32_t card_id;
    std::uint32_t family;
};

// One line per family.
// clang-format off
constexpr card_family CARD_FAMILIES[] = {
    {90, 17}, {93, 17}, {94, 17}, {95, 17}, {96, 17}, {97, 17},
    {106, 19}, {108, 19},
    {109, 21}, {110, 21}, {111, 21}, {112, 21},
    {107, 23}, {115, 23}, {126, 23}, {140, 23}, {141, 23}, {148, 23}, {176, 23}, {198, 23}, {236, 23},
    {183, 26}, {206, 26}, {248, 26}, {249, 26}, {283, 26}, {300, 26},
    {222, 28}, {223, 28},
    {271, 30},
    {272, 31},
    {282, 34},
    {314, 35},
    {316, 36},
    {318, 37},
};
// clang-format on

// The card whose board variants share one id, and their families by hw.change.bit.
constexpr std::uint32_t VARIANT_CARD_ID = 182;
constexpr std::uint32_t FAMILY_PLAIN = 29;       // hw.change.bit 0 to 2
constexpr std::uint32_t FAMILY_PFCR_SANDYB = 32; // 3
constexpr std::uint32_t FAMILY_PFCR_IVB = 33;    // above 3, and when the SPROM cannot be read

constexpr std::uint32_t SPROM_DEVICE = 3;
constexpr std::uint16_t SPROM_BYTES = 512;
constexpr std::size_t HW_CHANGE_BIT_OFFSET = 174; // 32-bit little-endian word, unaligned

// Line numbers by which the field's log readers know these messages.
constexpr int LINE_SPROM_READ_FAILED = 154;
constexpr int LINE_SPROM_READ = 159;
constexpr int LINE_CHANGE_BIT_FAILED = 179;
constexpr int LINE_CHANGE_BIT = 183;

static_assert(sizeof(card_module_info_t) == 6);
static_assert(sizeof(void *) != 4 || sizeof(sse_sprom_read_request_t) == 20, "layout of the 32-bit target");

std::uint32_t family_by_change_bit()
{
    std::uint32_t change_bit = 0;
    if (get_hw_change_bit(&change_bit) < 0) {
        BIOS_LOG("%s/%d: Failed to read hw.change.bit \n", "get_sw_card_family", LINE_CHANGE_BIT_FAILED);
        return FAMILY_PFCR_IVB;
    }
    BIOS_LOG("%s/%d: hw.change.bit value 0x%x\n", "get_sw_card_family", LINE_CHANGE_BIT, change_bit);
    if (change_bit <= 2)
        return FAMILY_PLAIN;
    return change_bit == 3 ? FAMILY_PFCR_SANDYB : FAMILY_PFCR_IVB;
}

} // namespace

std::uint32_t get_sw_card_id()
{
    card_module_info_t info = {};
    if (get_card_module_info(&info) != 0) {
        BIOS_LOG("Error in getting module information\n");
        return 0;
    }
    return info.card_id;
}

std::int32_t get_hw_change_bit(std::uint32_t *value)
{
    *value = 0;
    // The device is reset before use and stays initialised afterwards.
    (void)sprom_cleanup_dev(SPROM_DEVICE, 0, SPROM_BYTES, 0);
    (void)sprom_init_dev(SPROM_DEVICE, 0, SPROM_BYTES, 0);

    std::uint8_t content[SPROM_BYTES] = {};
    sse_sprom_read_request_t request = {};
    request.device = SPROM_DEVICE;
    request.length = SPROM_BYTES;
    request.destination = content;
    const std::int32_t result = sse_call(SSE_CALL_SPROM_READ, &request);
    if (result < 0) {
        BIOS_LOG("%s/%d: read from SPROM failed, [%s]\n", "get_hw_change_bit", LINE_SPROM_READ_FAILED,
                 std::strerror(errno));
        return result;
    }

    const std::uint8_t *word = content + HW_CHANGE_BIT_OFFSET;
    *value = std::uint32_t{word[0]} | std::uint32_t{word[1]} << 8 | std::uint32_t{word[2]} << 16 |
             std::uint32_t{word[3]} << 24;
    BIOS_LOG("%s/%d: SPROM Read successfull ret value %d and hw.change.bit value is 0x%x\n", "get_hw_change_bit",
             LINE_SPROM_READ, result, *value);
    return result;
}

std::uint32_t get_sw_card_family(std::uint32_t card_id)
{
    if (card_id == VARIANT_CARD_ID)
        return family_by_change_bit();
    for (const card_family &entry : CARD_FAMILIES) {
        if (entry.card_id == card_id)
            return entry.family;
    }
    return NO_CARD_FAMILY;
}
