// The flash service: programming and erasing the flashes of this card.
//
// Called in the programming child process. A flash belongs to one request at a time; what a child that died has
// left behind is a flash that is marked as being programmed, and the next request finds out what is still to be
// done.
#include "bios_flash.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>

#include "bios_refusals.h"
#include "bios_results.h"
#include "c_boundary.h"
#include "chassis_dir.h"
#include "flash_claim.h"
#include "flash_device.h"
#include "flash_image.h"
#include "flash_programming.h"
#include "flash_programming_events.h"
#include "flash_progress.h"
#include "flash_progress_file.h"

namespace
{

// A selector is the board family's layout in its high nibble and the flash in its low one.
constexpr std::uint32_t SELECTOR_INSTANCE_MASK = 0x0f;
constexpr std::uint32_t SELECTOR_LAYOUT_SHIFT = 4;
constexpr std::uint32_t SELECTOR_NO_FLASH = 0x0f; // in the low nibble
constexpr std::uint32_t FIRST_LAYOUT = 3;
constexpr std::uint32_t LAST_LAYOUT = 5;
constexpr std::uint32_t NO_INSTANCE = FLASH_INSTANCE_COUNT;

std::uint32_t instance_of(std::uint32_t selector)
{
    const std::uint32_t layout = selector >> SELECTOR_LAYOUT_SHIFT & 0x0f;
    return layout < FIRST_LAYOUT || layout > LAST_LAYOUT ? NO_INSTANCE : selector & SELECTOR_INSTANCE_MASK;
}

std::unique_ptr<flash_device> open_for_writing(std::uint32_t instance, std::int32_t &failure)
{
    auto flash = flash_device::open(instance, flash_access::write);
    if (!flash)
        failure = errno == EBUSY ? BIOS_FLASH_ERR_IN_USE : BIOS_FLASH_ERR_NO_FLASH;
    return flash;
}

// What a call works with: the claim of its programming, and the flash. Without a flash, failure says why.
struct claimed_flash {
    std::unique_ptr<flash_device> flash = nullptr;
    flash_claim *claim = nullptr;
    std::int32_t failure = 0;
};

// no_image: what it is called when there is no image at path.
claimed_flash claim_flash(const char *path, std::uint32_t instance, std::uint32_t attempt, std::int32_t no_image)
{
    claimed_flash claimed{.claim = flash_claim::of(instance, path, attempt)};
    std::optional<flash_image> image;
    if (claimed.claim == nullptr && !(image = flash_image::open(path))) {
        claimed.failure = errno == EINVAL ? BIOS_FLASH_ERR_IMAGE_SIZE : no_image;
        return claimed;
    }
    if (claimed.claim != nullptr && !claimed.claim->has_its_image()) {
        claimed.failure = bios_signed(BIOS_REFUSED_CHANGED);
        return claimed;
    }
    auto flash = open_for_writing(instance, claimed.failure);
    if (!flash)
        return claimed;
    if (image && image->size_bytes() == 0) {
        claimed.failure = BIOS_FLASH_ERR_IMAGE_SIZE;
        return claimed;
    }
    if (image)
        claimed.claim = flash_claim::make(instance, path, std::move(*image), *flash, claimed.failure);
    if (claimed.claim != nullptr)
        claimed.flash = std::move(flash);
    return claimed;
}

std::int32_t program_flash(const char *path, std::uint32_t instance, std::uint32_t attempt,
                           flash_programming_mode mode, flash_progress &progress)
{
    const claimed_flash claimed = claim_flash(path, instance, attempt, BIOS_FLASH_ERR_IMAGE_READ);
    if (!claimed.flash)
        return flash_attempt_refused(instance, attempt, claimed.failure);
    flash_attempt_events events(*claimed.flash, instance, attempt, claimed.claim->image());
    const std::int32_t result =
        events.ended(flash_program_image(*claimed.flash, claimed.claim->image(), mode, progress));
    return claimed.claim->ended(attempt, result);
}

std::int32_t erase_flash(std::uint32_t instance)
{
    const claimed_flash claimed =
        claim_flash(flash_temporary_image, instance, 0, bios_signed(BIOS_REFUSED_NO_IMAGE));
    if (!claimed.flash)
        return flash_attempt_refused(instance, 0, claimed.failure);
    const auto note = [instance](std::uint32_t percent) {
        flash_progress_note(chassis_own_slot(), instance, BIOS_PHASE_ERASE, percent, 0);
    };
    note(0); // before the first event
    flash_attempt_events events(*claimed.flash, instance);
    return claimed.claim->ended(0, events.ended(flash_erase_whole(*claimed.flash, note)));
}

} // namespace

std::int32_t program_bios_flash(std::int32_t handle, std::uint32_t requester_node, std::uint32_t requester_sap,
                                std::uint32_t own_module, const char *path, std::uint32_t attempt,
                                void *progress_area, std::uint32_t image_type)
{
    (void)own_module; // the chassis knows the card by its slot
    flash_progress progress(image_type, handle, requester_node, requester_sap, attempt,
                            static_cast<bios_flash_progress_area_t *>(progress_area));
    return c_boundary(bios_signed(BIOS_ERR_NO_MEMORY), [&] {
        return program_flash(path, image_type, attempt, flash_programming_mode::erase_and_write, progress);
    });
}

std::uint32_t ibexpeak_bios_which_flash(const char *name, std::uint32_t variant)
{
    const std::uint32_t layout = (variant & 0x0f) << SELECTOR_LAYOUT_SHIFT;
    if (name != nullptr && std::strcmp(name, "pri") == 0)
        return layout | BIOS_FLASH_PRIMARY;
    if (name != nullptr && std::strcmp(name, "alt") == 0)
        return layout | BIOS_FLASH_ALTERNATE;
    return layout | SELECTOR_NO_FLASH;
}

std::int32_t ibexpeak_bios_flash_erase(std::uint32_t selector)
{
    return c_boundary(bios_signed(BIOS_ERR_NO_MEMORY), [&] { return erase_flash(instance_of(selector)); });
}

std::int32_t ibexpeak_program_bios_command_ex(const char *path, std::uint32_t selector, std::int32_t handle,
                                              std::uint32_t requester_node, std::uint32_t requester_sap,
                                              std::uint32_t own_module, std::uint32_t attempt, void *progress_area)
{
    (void)own_module; // the chassis knows the card by its slot
    flash_progress progress(instance_of(selector), handle, requester_node, requester_sap, attempt,
                            static_cast<bios_flash_progress_area_t *>(progress_area));
    return c_boundary(bios_signed(BIOS_ERR_NO_MEMORY), [&] {
        return program_flash(path, instance_of(selector), attempt, flash_programming_mode::write_only, progress);
    });
}
