#include "flash_selection.h"

#include <cstdio>

#include "bios_log.h"
#include "bios_results.h"
#include "card_groups.h"
#include "card_identification.h"
#include "cctrl.h"

namespace
{

constexpr std::uint32_t FLASH_CONTROL_REGISTER = 186;
constexpr std::uint32_t SELECT_FLASH_0 = 0x800;
constexpr std::uint32_t SELECT_FLASH_1 = 0xC00;

// An unknown flash number is reported and written as 0 all the same.
std::uint32_t control_value(std::uint32_t flash)
{
    if (flash == 0)
        return SELECT_FLASH_0;
    if (flash == 1)
        return SELECT_FLASH_1;
    std::puts("error: flash num not supported.");
    return 0;
}

} // namespace

std::int32_t bios_sel_flash(std::uint32_t flash)
{
    const std::uint32_t card_id = get_sw_card_id() & 0xffff;
    if (card_id == 0) {
        BIOS_LOG("get sw card id failed");
        return bios_signed(BIOS_ERR_CARD_ID);
    }
    std::printf("card_id = %d\n", static_cast<int>(card_id));
    if (!has_flash_selection(card_id)) {
        std::puts("error: flash sel not supported on this platform.");
        return 0;
    }
    if (cctrl_write_reg3(FLASH_CONTROL_REGISTER, control_value(flash)) != 0) {
        std::puts("error: failed to write flash control register");
        return -1;
    }
    return 0;
}
