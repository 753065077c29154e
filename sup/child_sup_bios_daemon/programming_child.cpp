// The active supervisor unpacks the image, programs its own flashes or has another module program its own, and
// cleans up. A supervisor that is not active finds the image already unpacked: the active one sent it over.
#include "programming_child.h"

#include "bios_daemon_state.h"
#include "bios_log.h"
#include "bios_results.h"
#include "card_groups.h"
#include "card_identification.h"
#include "card_table.h"
#include "flash_walk.h"
#include "module_programming.h"
#include "pfm.h"
#include "sysmgr.h"

namespace
{

// What the request asks for, and who asks.
struct programming_job {
    std::int32_t handle;
    std::uint32_t requester_node;
    std::uint32_t requester_sap;
    const bios_programming_req_t *request_body;
    std::uint32_t programming_mod_num;
    std::uint32_t my_module_num;
    std::uint8_t image_type;
};

std::uint32_t inventory_card_id(std::uint32_t module)
{
    return module >= 1 && module <= PFM_MODULE_COUNT ? pfm_info[module - 1].card_id : 0;
}

// The card id whose rows are meant. function is the name by which log readers know the lines.
std::uint32_t card_id_of_rows(const char *function, std::uint32_t own_card_id, std::uint32_t received_card_id)
{
    if (!is_tarvik_a_supervisor(own_card_id))
        return received_card_id;
    BIOS_LOG("%s: **** hack: received card_id=%d", function, static_cast<int>(received_card_id));
    BIOS_LOG("%s: **** hack: modified card_id=%d", function, static_cast<int>(own_card_id));
    return own_card_id;
}

// Extraction failures never stop the request: the program path finds the missing file.
void extract_images(std::int32_t handle, const bios_card_table &table, const char *image_path,
                    std::uint8_t image_type)
{
    for (std::uint32_t k = 0; k < table.count; ++k) {
        const bios_flash_entry &row = table.entries()[k];
        BIOS_LOG("--- starting extraction in active %d out of %d", static_cast<int>(k),
                 static_cast<int>(table.count));
        if (row.flash_type == 0) {
            BIOS_LOG("SKIPPING entry %d bios id invalid", static_cast<int>(k));
            continue;
        }
        if (row.flash_instance != image_type)
            continue;
        BIOS_LOG("pathname=%s, bios_temp_file=%s", row.src_path, row.tmp_path);
        if (row.extract == nullptr)
            return;
        const std::int32_t result = row.extract(handle, row.flash_type, image_path, row.src_path, row.tmp_path);
        if (result != 0)
            BIOS_LOG("error: in extracting err=%x ", static_cast<unsigned>(result));
    }
}

// Every valid row is cleaned up, whatever its instance. BIOS_ERR_NO_OPERATION for a row that cannot be, else 0.
std::int32_t clean_up_images(std::int32_t handle, const bios_card_table &table, const char *image_path)
{
    for (std::uint32_t k = 0; k < table.count; ++k) {
        const bios_flash_entry &row = table.entries()[k];
        if (row.flash_type == 0) {
            BIOS_LOG("SKIPPING entry %d bios id invalid", static_cast<int>(k));
            continue;
        }
        if (row.cleanup == nullptr)
            return bios_signed(BIOS_ERR_NO_OPERATION);
        const std::int32_t result = row.cleanup(handle, row.flash_type, image_path, row.src_path, row.tmp_path);
        if (result != 0)
            BIOS_LOG("error: in cleanup err=%x ", static_cast<unsigned>(result));
    }
    return 0;
}

std::int32_t program_own_flashes(const programming_job &job, const bios_card_table &table, std::int32_t sup_state)
{
    return bios_prog_all_bios_flashes(job.handle, &table, job.requester_node, job.requester_sap, sup_state,
                                      job.programming_mod_num, job.my_module_num, job.image_type);
}

std::int32_t program_as_active(const programming_job &job, const bios_card_table &table)
{
    std::int32_t result = 0;
    if (job.programming_mod_num != job.my_module_num) {
        result =
            bios_prog_in_modules(job.handle, pfm_info, job.request_body, job.requester_node, job.requester_sap);
        BIOS_LOG("Got ret=%x from prog modules call", static_cast<unsigned>(result));
    } else {
        result = program_own_flashes(job, table, SYSMGR_SUP_STATE_ACTIVE);
        BIOS_LOG("Got ret=%x from prog self bios call", static_cast<unsigned>(result));
    }
    BIOS_LOG("Got retcode = %x from programming request", static_cast<unsigned>(result));
    return result;
}

} // namespace

std::int32_t bios_daemon_child_process(std::int32_t handle, std::uint32_t requester_node,
                                       std::uint32_t requester_sap, const bios_programming_req_t *request_body,
                                       std::int32_t sup_state, const char *image_path,
                                       std::uint32_t programming_mod_num, std::uint32_t my_module_num,
                                       std::uint8_t image_type)
{
    BIOS_LOG("%s:%d:", __func__, __LINE__);
    const programming_job job = {
        .handle = handle,
        .requester_node = requester_node,
        .requester_sap = requester_sap,
        .request_body = request_body,
        .programming_mod_num = programming_mod_num,
        .my_module_num = my_module_num,
        .image_type = image_type,
    };
    (void)pfm_get_all_modules_in_chassis(handle, pfm_info, PFM_MODULE_COUNT);
    const std::uint32_t received_card_id = inventory_card_id(programming_mod_num);

    const std::uint32_t own_card_id = get_sw_card_id() & 0xffff;
    if (own_card_id == 0) {
        BIOS_LOG("get sw card id failed");
        return bios_signed(BIOS_ERR_CARD_ID);
    }
    const std::uint32_t card_id = card_id_of_rows(__func__, own_card_id, received_card_id);
    const owned_card_table table(bios_get_card_id_ent(card_id, 0));
    if (table == nullptr)
        return bios_signed(BIOS_ERR_NO_ENTRIES);
    BIOS_LOG("%s:%d: Module=%d CardId=%d", __func__, __LINE__, static_cast<int>(programming_mod_num - 1),
             static_cast<int>(received_card_id));

    if (sup_state != SYSMGR_SUP_STATE_ACTIVE)
        return program_own_flashes(job, *table, sup_state);
    BIOS_LOG("%s:%d:", __func__, __LINE__);
    extract_images(handle, *table, image_path, image_type);
    const std::int32_t result = program_as_active(job, *table);
    const std::int32_t cleanup_result = clean_up_images(handle, *table, image_path);
    return result != 0 ? result : cleanup_result;
}
