#include "nor_file_driver.h"

#include "chassis_dir.h"
#include "nor_file.h"

namespace
{

nor_file *file_of(flash_part *part)
{
    return reinterpret_cast<nor_file *>(part);
}

const nor_file *file_of(const flash_part *part)
{
    return reinterpret_cast<const nor_file *>(part);
}

} // namespace

const flash_driver nor_file_driver = {
    .name = "nor_file",
    .open =
        [](unsigned instance, flash_access access) {
            return reinterpret_cast<flash_part *>(nor_file::open(chassis_own_slot(), instance, access).release());
        },
    .close = [](flash_part *part) { delete file_of(part); },
    .geometry = [](const flash_part *part) -> const flash_geometry & { return file_of(part)->geometry(); },
    .is_protected = [](const flash_part *part,
                       std::uint32_t sector) { return file_of(part)->is_protected(sector); },
    .erase = [](flash_part *part, std::uint32_t sector) { return file_of(part)->erase(sector); },
    .program = [](flash_part *part, std::uint32_t offset, const std::uint8_t *bytes,
                  std::uint32_t length) { return file_of(part)->program(offset, bytes, length); },
    .read = [](flash_part *part, std::uint32_t offset, std::uint8_t *bytes_out,
               std::uint32_t length) { return file_of(part)->read(offset, bytes_out, length); },
    .sync = [](flash_part *part) { return file_of(part)->sync(); },
    .is_marked = [](const flash_part *part) { return file_of(part)->is_marked(); },
    .set_marker = [](flash_part *part) { return file_of(part)->set_marker(); },
    .clear_marker = [](flash_part *part) { return file_of(part)->clear_marker(); },
    .wear = [](const flash_part *part) -> const flash_wear & { return file_of(part)->wear(); },
};
