// On the tarvik-a supervisors the BIOS set meant is always that of one module, whatever a request names.
#pragma once

#include <cstdint>

// The module to use in place of module_num; logs the replacement.
std::uint32_t override_module_num(std::uint32_t sup_id, std::uint32_t module_num, std::uint32_t my_module_num);
