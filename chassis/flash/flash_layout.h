// One flash of a card, as it lies below the chassis directory in slots/SLOT/flash/primary/ or .../alternate/:
//
//   data          the contents, size_bytes long
//   size_bytes, sector_bytes, page_bytes   geometry, one value each
//   timing        0, or 1: operations take the time of a real part
//   protected     write-protected sectors, one number or one range "first-last" a line
//   faults        faults on demand, see flash_faults.h; absent when there are none
//   programming   present from before the first erase of a programming until its contents were verified
//   progress      how far the last programming is or was, see flash_progress_file.h; absent before the first
//   wear          what was done so far: lines "erases N", "programs N", "reads N"
//   events, events.1   what happened to it, see flash_event_log.h; event_totals: what older events add up to
//   violations    what was asked of it that no driver may ask, a line each; absent when there was nothing
//
// This file makes flashes and names their files; it uses chassis_dir.h only, so that tools of any word size
// compile it into themselves. The device itself is flash_device.h.
#pragma once

#include <cstdint>
#include <string>

constexpr const char *FLASH_FILE_DATA = "data";
constexpr const char *FLASH_FILE_SIZE_BYTES = "size_bytes";
constexpr const char *FLASH_FILE_SECTOR_BYTES = "sector_bytes";
constexpr const char *FLASH_FILE_PAGE_BYTES = "page_bytes";
constexpr const char *FLASH_FILE_TIMING = "timing";
constexpr const char *FLASH_FILE_PROTECTED = "protected";
constexpr const char *FLASH_FILE_FAULTS = "faults";
constexpr const char *FLASH_FILE_PROGRAMMING = "programming";
constexpr const char *FLASH_FILE_PROGRESS = "progress";
constexpr const char *FLASH_FILE_WEAR = "wear";
constexpr const char *FLASH_FILE_VIOLATIONS = "violations";
constexpr const char *FLASH_FILE_EVENTS = "events";
constexpr const char *FLASH_FILE_OLDER_EVENTS = "events.1";
constexpr const char *FLASH_FILE_EVENT_TOTALS = "event_totals";

constexpr unsigned FLASH_INSTANCE_COUNT = 2; // 0 primary, 1 alternate
constexpr std::uint8_t FLASH_ERASED_BYTE = 0xff;
constexpr std::uint32_t FLASH_MAX_BYTES = std::uint32_t{256} << 20; // the largest single parts made

struct flash_geometry {
    std::uint32_t size_bytes = 0;                         // whole sectors, at most FLASH_MAX_BYTES
    std::uint32_t sector_bytes = std::uint32_t{64} << 10; // unit of erasing, whole pages
    std::uint32_t page_bytes = 256;                       // unit of programming
};

[[nodiscard]] bool flash_geometry_valid(const flash_geometry &geometry);

// Name below the chassis directory of a flash's folder, and of a file in it. instance: below FLASH_INSTANCE_COUNT.
std::string flash_folder_path(unsigned slot, unsigned instance);
std::string flash_file_path(unsigned slot, unsigned instance, const char *file);

// Makes a flash with its folders. A flash that is there already is left as it is.
//   initial_image  file with the first contents, followed by erased bytes; empty: all erased
// 0, or -1 with errno: EEXIST when the flash is there, EINVAL for the instance or the geometry, EFBIG when the
// image is larger than the flash, or that of the system call that failed. After a failure there is no `data`,
// so that the flash cannot be opened.
[[nodiscard]] int flash_device_create(unsigned slot, unsigned instance, const flash_geometry &geometry,
                                      const std::string &initial_image = {});
