#include "module_node.h"

#include "pfm.h"

namespace
{

constexpr std::uint32_t NODE_SUPERVISOR = 1;
constexpr std::uint32_t NODE_OTHER_CARD = 2;

} // namespace

std::uint32_t get_nodeid_for_module(std::int32_t handle, std::uint32_t module)
{
    pfm_module_record_t records[PFM_MODULE_COUNT] = {};
    if (pfm_get_all_modules_in_chassis(handle, records, PFM_MODULE_COUNT) < 0)
        return 0;
    if (module < 1 || module > PFM_MODULE_COUNT)
        return 0;
    const std::uint8_t kind = records[module - 1].kind;
    const bool supervisor = kind == PFM_KIND_SUPERVISOR || kind == PFM_KIND_SUPERVISOR_ALTERNATE;
    return (module * 256 | (supervisor ? NODE_SUPERVISOR : NODE_OTHER_CARD)) & 0xffff;
}
