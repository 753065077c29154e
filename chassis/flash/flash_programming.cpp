// The programming procedure. It works sector by sector with two buffers of a sector, whatever the image's size.
#include "flash_programming.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace
{

// How the phases share the percentages: about as long as they take on a real part, with a little for reading back.
constexpr flash_progress_span ERASE_SPAN = {BIOS_PHASE_ERASE, 0, 40};
constexpr flash_progress_span WRITE_SPAN = {BIOS_PHASE_WRITE, 40, 90};
constexpr flash_progress_span WRITE_ONLY_SPAN = {BIOS_PHASE_WRITE, 0, 90};
constexpr flash_progress_span VERIFY_SPAN = {BIOS_PHASE_VERIFY, 90, 99};

enum class sector_work : std::uint8_t { none, write, erase_and_write };

bool is_erased(const std::uint8_t *bytes, std::uint32_t length)
{
    return std::all_of(bytes, bytes + length, [](std::uint8_t byte) { return byte == FLASH_ERASED_BYTE; });
}

class programming_run
{
public:
    programming_run(flash_device &flash, const flash_image &image, flash_programming_mode mode,
                    flash_progress &progress)
        : flash_(flash),
          image_(image),
          progress_(progress),
          mode_(mode),
          sector_bytes_(flash.geometry().sector_bytes),
          work_(flash.sector_count(), sector_work::none),
          wanted_(sector_bytes_),
          found_(sector_bytes_)
    {
    }

    std::int32_t run();

private:
    std::int32_t find_differences();
    bool is_protected_concerned() const;
    bool erase_sectors();
    bool write_sectors();
    bool write_sector(std::uint32_t sector);
    bool verify();
    bool load_wanted(std::uint32_t sector) { return image_.read(offset_of(sector), wanted_.data(), sector_bytes_); }
    bool load_found(std::uint32_t sector);
    bool is_equal() const { return std::memcmp(wanted_.data(), found_.data(), sector_bytes_) == 0; }
    std::uint32_t offset_of(std::uint32_t sector) const { return sector * sector_bytes_; }
    std::uint32_t sector_count() const { return static_cast<std::uint32_t>(work_.size()); }

    flash_device &flash_;
    const flash_image &image_;
    flash_progress &progress_;
    flash_programming_mode mode_;
    std::uint32_t sector_bytes_;
    std::vector<sector_work> work_;    // by sector
    std::vector<std::uint8_t> wanted_; // one sector of the image
    std::vector<std::uint8_t> found_;  // one sector of the flash
};

std::int32_t programming_run::run()
{
    const bool may_erase = mode_ == flash_programming_mode::erase_and_write;
    progress_.report(may_erase ? ERASE_SPAN : WRITE_ONLY_SPAN, 0, sector_count());
    if (const std::int32_t result = find_differences(); result != 0)
        return result;
    const bool is_different =
        std::any_of(work_.begin(), work_.end(), [](sector_work work) { return work != sector_work::none; });
    if (!is_different && !flash_.is_marked()) {
        progress_.report_done(); // looking for differences has read all of it back
        return 0;
    }
    if (is_protected_concerned())
        return BIOS_FLASH_ERR_PROTECTED;
    if (!flash_.set_marker())
        return may_erase ? BIOS_FLASH_ERR_ERASE : BIOS_FLASH_ERR_PROGRAM;
    if (may_erase && !erase_sectors())
        return BIOS_FLASH_ERR_ERASE;
    if (!write_sectors() || !verify() || !flash_.sync() || !flash_.clear_marker())
        return BIOS_FLASH_ERR_PROGRAM;
    progress_.report_done();
    return 0;
}

std::int32_t programming_run::find_differences()
{
    for (std::uint32_t sector = 0; sector < sector_count(); ++sector) {
        if (!load_wanted(sector))
            return BIOS_FLASH_ERR_IMAGE_READ;
        if (!load_found(sector) && !load_found(sector))
            return BIOS_FLASH_ERR_NO_FLASH;
        if (is_equal())
            continue;
        const bool must_erase =
            mode_ == flash_programming_mode::erase_and_write && !is_erased(found_.data(), sector_bytes_);
        work_[sector] = must_erase ? sector_work::erase_and_write : sector_work::write;
    }
    return 0;
}

bool programming_run::is_protected_concerned() const
{
    for (std::uint32_t sector = 0; sector < sector_count(); ++sector) {
        if (work_[sector] != sector_work::none && flash_.is_protected(sector))
            return true;
    }
    return false;
}

bool programming_run::erase_sectors()
{
    for (std::uint32_t sector = 0; sector < sector_count(); ++sector) {
        if (work_[sector] == sector_work::erase_and_write && !flash_.erase(sector))
            return false;
        progress_.report(ERASE_SPAN, sector + 1, sector_count());
    }
    return true;
}

bool programming_run::write_sectors()
{
    const flash_progress_span &span =
        mode_ == flash_programming_mode::erase_and_write ? WRITE_SPAN : WRITE_ONLY_SPAN;
    for (std::uint32_t sector = 0; sector < sector_count(); ++sector) {
        if (work_[sector] != sector_work::none && !write_sector(sector))
            return false;
        progress_.report(span, sector + 1, sector_count());
    }
    return true;
}

bool programming_run::write_sector(std::uint32_t sector)
{
    if (!load_wanted(sector))
        return false;
    const std::uint32_t page_bytes = flash_.geometry().page_bytes;
    for (std::uint32_t place = 0; place < sector_bytes_; place += page_bytes) {
        const std::uint8_t *page = wanted_.data() + place;
        if (!is_erased(page, page_bytes) && !flash_.program(offset_of(sector) + place, page, page_bytes))
            return false;
    }
    return true;
}

// A read over a disturbed bus is not taken for a bad flash: what does not match is read once more.
bool programming_run::verify()
{
    for (std::uint32_t sector = 0; sector < sector_count(); ++sector) {
        if (!load_wanted(sector))
            return false;
        if (!(load_found(sector) && is_equal()) && !(load_found(sector) && is_equal()))
            return false;
        progress_.report(VERIFY_SPAN, sector + 1, sector_count());
    }
    return true;
}

bool programming_run::load_found(std::uint32_t sector)
{
    return flash_.read(offset_of(sector), found_.data(), sector_bytes_);
}

} // namespace

std::int32_t flash_program_image(flash_device &flash, const flash_image &image, flash_programming_mode mode,
                                 flash_progress &progress)
{
    return programming_run(flash, image, mode, progress).run();
}

std::int32_t flash_erase_whole(flash_device &flash)
{
    for (std::uint32_t sector = 0; sector < flash.sector_count(); ++sector) {
        if (flash.is_protected(sector))
            return BIOS_FLASH_ERR_PROTECTED;
    }
    if (!flash.set_marker())
        return BIOS_FLASH_ERR_ERASE;
    for (std::uint32_t sector = 0; sector < flash.sector_count(); ++sector) {
        if (!flash.erase(sector))
            return BIOS_FLASH_ERR_ERASE;
    }
    return 0;
}
