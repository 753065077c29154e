#include "module_node.h"

#include "daemon_node.h"
#include "pfm.h"

std::uint32_t get_nodeid_for_module(std::int32_t handle, std::uint32_t module)
{
    pfm_module_record_t records[PFM_MODULE_COUNT] = {};
    if (pfm_get_all_modules_in_chassis(handle, records, PFM_MODULE_COUNT) < 0)
        return 0;
    if (module < 1 || module > PFM_MODULE_COUNT)
        return 0;
    return daemon_node(module, is_supervisor_kind(records[module - 1].kind));
}
