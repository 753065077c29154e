#include "programming_admission.h"

#include <cstring>
#include <string>

#include "agent_messages.h"
#include "bios_messages.h"
#include "bios_results.h"
#include "chassis_dir.h"
#include "flash_order.h"
#include "image_files.h"
#include "living_child.h"
#include "mts_tools.h"
#include "regular_file.h"
#include "sysmgr.h"
#include "text_field.h"

namespace
{

constexpr bios_programming_reply_t NO_REPLY = {};
constexpr bios_src_version_reply BUSY_REPLY = {be32::of(BIOS_ERR_BUSY), be32::of(0)};

refusal refuse_programming(std::uint32_t status)
{
    return {status, &NO_REPLY, sizeof NO_REPLY};
}

bool names_readable_file(const bios_programming_req_t &request)
{
    char path[URI_MAPPED_PATH_BYTES];
    const char *mapped = uri_map_targetfs_path_get(field_text(request.uri).text, path);
    return mapped != nullptr && open_regular_file(mapped);
}

} // namespace

std::optional<refusal> admit_programming(std::int32_t handle, mts_message_t *message)
{
    if (!mts_is_bound(mts_node_of_slot(chassis_own_slot()), AGENT_SAP) || living_child_refuses(handle))
        return refuse_programming(BIOS_ERR_BUSY);
    if (is_programming_under_way())
        return std::nullopt; // the active supervisor's daemon says itself that it is busy
    bios_programming_req_t request;
    std::memcpy(&request, static_cast<const std::uint8_t *>(mts_payload_get(message)) + MTS_REQUEST_HEADER_BYTES,
                sizeof request);
    if (sysmgr_cli_supstate_get(handle) == SYSMGR_SUP_STATE_ACTIVE && request.def.load() == 0 &&
        !names_readable_file(request))
        return refuse_programming(BIOS_ERR_URI);
    return std::nullopt;
}

std::optional<refusal> admit_source_version(std::int32_t, mts_message_t *)
{
    if (!is_programming_under_way() && !flash_orders_are_live(chassis_own_slot()))
        return std::nullopt;
    return refusal{BIOS_ERR_BUSY, &BUSY_REPLY, sizeof BUSY_REPLY};
}
