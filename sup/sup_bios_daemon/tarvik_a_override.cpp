#include "tarvik_a_override.h"

#include "bios_log.h"
#include "card_groups.h"

std::uint32_t override_module_num(std::uint32_t sup_id, std::uint32_t module_num, std::uint32_t my_module_num)
{
    BIOS_LOG("%s: *** tarvik-a hack: sup_id=%d, module_num=%d, my_module_num=%d", "main", static_cast<int>(sup_id),
             static_cast<int>(module_num), static_cast<int>(my_module_num));
    BIOS_LOG("%s: *** tarvik-a hack: setting module_num to %d", "main", static_cast<int>(TARVIK_A_MODULE_NUM));
    return TARVIK_A_MODULE_NUM;
}
