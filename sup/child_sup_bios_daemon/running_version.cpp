#include "running_version.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "bios_cmd_check.h"
#include "bios_daemon_state.h"
#include "bios_log.h"
#include "file_exists.h"
#include "sysmgr.h"
#include "unique_fd.h"

namespace
{

constexpr std::uint32_t TYPE_RUNNING = 1;
constexpr std::uint32_t SELECT_PRIMARY = 0;
constexpr std::uint32_t SELECT_ALTERNATE = 1;
constexpr ssize_t RECORD_BYTES = BIOS_VERSION_TEXT_BYTES;

char *version_slot(std::uint32_t row_index)
{
    return bios_flash_instance + std::size_t{row_index} * BIOS_VERSION_TEXT_BYTES;
}

// No terminator is copied: the tail of a longer text that stood there stays, as it always has.
void lay_over_running_version(const char *version)
{
    std::memcpy(running_version, version, ::strnlen(version, BIOS_VERSION_TEXT_BYTES));
}

void read_flash_versions(std::int32_t handle)
{
    for (std::uint32_t i = 0; i < self_card_id_tbl->count; ++i) {
        const bios_flash_entry &row = self_card_id_tbl->entries()[i];
        char *slot = version_slot(i);
        slot[0] = '\0'; // the work area is not initialised, and a getter may fail without writing
        (void)row.get_flash_version(handle, row.flash_type, SELECT_ALTERNATE, slot);
        slot[BIOS_VERSION_TEXT_BYTES - 1] = '\0';
        BIOS_LOG("iter[%d], after get_flash_version_func = 0x%p, swid = %d, ver = %s\n", static_cast<int>(i),
                 reinterpret_cast<void *>(row.get_flash_version), static_cast<int>(row.flash_type), slot);
        (void)std::fflush(stdout);
        lay_over_running_version(slot);
    }
}

void take_over_record()
{
    const unique_fd fd(::open(RUNNING_VERSION_RECORD, O_RDONLY));
    if (!fd) {
        BIOS_LOG("Error opening file   %s", RUNNING_VERSION_RECORD);
        return;
    }
    char text[RECORD_BYTES] = {};
    if (::read(fd.get(), text, RECORD_BYTES) < RECORD_BYTES) {
        BIOS_LOG("Error reading file   %s", RUNNING_VERSION_RECORD);
        return;
    }
    text[RECORD_BYTES - 1] = '\0';
    std::memset(running_version, 0, sizeof running_version);
    std::memcpy(running_version, text, std::strlen(text) + 1);
    BIOS_LOG("running version read from file = %s", running_version);
}

} // namespace

std::int32_t mod_bios_version_init(std::int32_t handle)
{
    read_flash_versions(handle);
    if (!file_exists(RUNNING_VERSION_RECORD))
        return 0;
    if (sysmgr_is_upgrade_restart() != 0) {
        take_over_record();
        return 0;
    }
    BIOS_LOG("Deleting file  %s", RUNNING_VERSION_RECORD);
    (void)!std::system("unlink  /mnt/pss/bios_run_ver");
    return 0;
}

std::int32_t mod_get_bios_version(std::int32_t handle, std::uint32_t row_index, std::uint32_t type, char *out)
{
    BIOS_LOG("%s:%d: prog_busy=%d, inst=%d, type=%d\n", __func__, __LINE__,
             static_cast<int>(bios_programming_in_progress), static_cast<int>(row_index), static_cast<int>(type));
    if (type == TYPE_RUNNING) {
        std::memcpy(out, running_version, sizeof running_version);
    } else {
        (void)bios_cmd_program_in_progress_check();
        if (bios_programming_in_progress != 0 || bios_cmd_program_in_progress != 0) {
            std::memcpy(out, running_version, sizeof running_version);
        } else {
            const bios_flash_entry &row = self_card_id_tbl->entries()[row_index];
            std::memset(out, 0, BIOS_VERSION_TEXT_BYTES); // a getter may fail without writing
            (void)row.get_flash_version(handle, row.flash_type, SELECT_PRIMARY, out);
        }
    }
    BIOS_LOG("%s:%d: got version = %s\n", __func__, __LINE__, out);
    return 0;
}

void record_running_version()
{
    unique_fd fd(::open(RUNNING_VERSION_RECORD, O_RDWR | O_CREAT | O_TRUNC, 0644));
    if (!fd) {
        BIOS_LOG(" Error opening file %s .. Running version will not be recorded for ISSU", RUNNING_VERSION_RECORD);
        return;
    }
    if (::write(fd.get(), running_version, RECORD_BYTES) < RECORD_BYTES) {
        fd.reset();
        withdraw_running_version();
        BIOS_LOG(" Error  writing to file %s  .. Running version will not be recorded for ISSU",
                 RUNNING_VERSION_RECORD);
        return;
    }
    BIOS_LOG(" file %s Written successfully", RUNNING_VERSION_RECORD);
}

void withdraw_running_version()
{
    (void)!std::system("unlink /mnt/pss/bios_run_ver");
}
