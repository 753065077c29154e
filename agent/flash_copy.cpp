#include "flash_copy.h"

#include <memory>

#include "chassis_dir.h"
#include "flash_device.h"
#include "flash_event_log.h"
#include "flash_folder.h"
#include "flash_progress_file.h"
#include "flash_wear.h"

namespace
{

// What changes whenever a process has changed the flash. The contents themselves would have to be read again.
struct flash_state {
    flash_activity activity;
    flash_event_log_state log;
    std::uint64_t erases = 0;
    std::uint64_t programs = 0;

    bool operator==(const flash_state &) const = default;
};

flash_state state_of(unsigned instance)
{
    const unsigned slot = chassis_own_slot();
    const flash_wear wear = flash_wear_load(flash_folder_path(slot, instance).c_str());
    return {flash_activity_of(slot, instance), flash_event_log_state_of(slot, instance), wear.erases,
            wear.programs};
}

} // namespace

agent_status open_flash_copy(unsigned instance, piece_source &source_out)
{
    const std::shared_ptr<flash_device> flash = flash_device::open(instance, flash_access::read);
    if (!flash)
        return AGENT_ERR_FLASH;
    const flash_state before = state_of(instance);
    if (before.activity.has_writer)
        return AGENT_ERR_FLASH_CHANGED;
    const auto check = [instance, before] {
        return state_of(instance) == before ? AGENT_OK : AGENT_ERR_FLASH_CHANGED;
    };
    source_out = {.subject = "flash " + std::to_string(instance),
                  .size_bytes = flash->geometry().size_bytes,
                  .read =
                      [flash, check](std::uint64_t offset, std::uint8_t *bytes_out, std::size_t count) {
                          const bool was_read = flash->read(static_cast<std::uint32_t>(offset), bytes_out,
                                                            static_cast<std::uint32_t>(count));
                          return was_read ? check() : AGENT_ERR_UNREADABLE;
                      },
                  .confirm = [check](const sha256_digest &) { return check(); }};
    return AGENT_OK;
}
