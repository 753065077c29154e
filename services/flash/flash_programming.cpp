// The programming procedure. It works sector by sector with a few buffers of a sector, whatever the image's size.
#include "flash_programming.h"

#include <algorithm>
#include <vector>

#include "bios_refusals.h"
#include "bios_results.h"
#include "byte_runs.h"

namespace
{

// How the phases share the percentages: about as long as they take on a real part, with a little for reading back.
constexpr flash_progress_span ERASE_SPAN = {BIOS_PHASE_ERASE, 0, 40};
constexpr flash_progress_span WRITE_SPAN = {BIOS_PHASE_WRITE, 40, 90};
constexpr flash_progress_span WRITE_ONLY_SPAN = {BIOS_PHASE_WRITE, 0, 90};
constexpr flash_progress_span VERIFY_SPAN = {BIOS_PHASE_VERIFY, 90, 99};

enum class sector_work : std::uint8_t { none, write, erase_and_write };

// Reading over a disturbed bus is not taken for a bad flash: an erase costs life of the part, an attempt costs the
// daemon's pause.
constexpr unsigned READ_TRIES = 3;       // of one sector
constexpr unsigned CONFIRMING_READS = 2; // that have to find the same sector wrong
constexpr unsigned ERASE_TRIES = 3;      // of a sector that is not blank though its erase succeeded

enum class finding : std::uint8_t { as_wanted, different, unreadable };

// The sector against what it should hold. found: a buffer of a sector; afterwards what was read last.
finding compare_sector(flash_device &flash, std::uint32_t sector, const std::vector<std::uint8_t> &wanted,
                       std::vector<std::uint8_t> &found)
{
    const std::uint32_t sector_bytes = flash.geometry().sector_bytes;
    unsigned mismatches = 0;
    for (unsigned attempt = 0; attempt < READ_TRIES && mismatches < CONFIRMING_READS; ++attempt) {
        // What a read that was short or did nothing leaves in the buffer must not look like the right bytes.
        complement_bytes(wanted.data(), found.data(), wanted.size());
        if (!flash.read(sector * sector_bytes, found.data(), sector_bytes))
            continue;
        if (found == wanted)
            return finding::as_wanted;
        ++mismatches;
    }
    return mismatches > 0 ? finding::different : finding::unreadable;
}

// Erases a sector and reads it back: what is written over bits that were left would be lost. buffers: of a sector.
bool erase_sector(flash_device &flash, std::uint32_t sector, const std::vector<std::uint8_t> &blank,
                  std::vector<std::uint8_t> &found)
{
    for (unsigned attempt = 0; attempt < ERASE_TRIES; ++attempt) {
        if (!flash.erase(sector))
            return false;
        if (compare_sector(flash, sector, blank, found) == finding::as_wanted)
            return true;
    }
    return false;
}

// A marker of which the flash has only said that it was set is none.
bool mark(flash_device &flash)
{
    return flash.set_marker() && flash.is_marked();
}

bool unmark(flash_device &flash)
{
    return flash.clear_marker() && !flash.is_marked();
}

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
          found_(sector_bytes_),
          blank_(sector_bytes_, FLASH_ERASED_BYTE)
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
    finding compare(std::uint32_t sector) { return compare_sector(flash_, sector, wanted_, found_); }
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
    std::vector<std::uint8_t> blank_;  // one erased sector
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
        if (image_.has_changed())
            return bios_signed(BIOS_REFUSED_CHANGED);
        progress_.report_done(); // looking for differences has read all of it back
        return 0;
    }
    if (is_protected_concerned())
        return BIOS_FLASH_ERR_PROTECTED;
    if (!mark(flash_))
        return may_erase ? BIOS_FLASH_ERR_ERASE : BIOS_FLASH_ERR_PROGRAM;
    if (may_erase && !erase_sectors())
        return BIOS_FLASH_ERR_ERASE;
    if (!write_sectors() || !verify() || image_.has_changed() || !flash_.sync() || !unmark(flash_))
        return BIOS_FLASH_ERR_PROGRAM;
    progress_.report_done();
    return 0;
}

std::int32_t programming_run::find_differences()
{
    for (std::uint32_t sector = 0; sector < sector_count(); ++sector) {
        if (!load_wanted(sector))
            return BIOS_FLASH_ERR_IMAGE_READ;
        const finding found = compare(sector);
        // An earlier attempt may have begun to change a marked flash: it is not as it was.
        if (found == finding::unreadable)
            return flash_.is_marked() ? BIOS_FLASH_ERR_PROGRAM : BIOS_FLASH_ERR_NO_FLASH;
        if (found == finding::as_wanted)
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
        if (work_[sector] == sector_work::erase_and_write && !erase_sector(flash_, sector, blank_, found_))
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

bool programming_run::verify()
{
    for (std::uint32_t sector = 0; sector < sector_count(); ++sector) {
        if (!load_wanted(sector) || compare(sector) != finding::as_wanted)
            return false;
        progress_.report(VERIFY_SPAN, sector + 1, sector_count());
    }
    return true;
}

} // namespace

std::int32_t flash_program_image(flash_device &flash, const flash_image &image, flash_programming_mode mode,
                                 flash_progress &progress)
{
    return programming_run(flash, image, mode, progress).run();
}

std::int32_t flash_erase_whole(flash_device &flash, const std::function<void(std::uint32_t percent)> &reached)
{
    for (std::uint32_t sector = 0; sector < flash.sector_count(); ++sector) {
        if (flash.is_protected(sector))
            return BIOS_FLASH_ERR_PROTECTED;
    }
    if (!mark(flash))
        return BIOS_FLASH_ERR_ERASE;
    const std::vector<std::uint8_t> blank(flash.geometry().sector_bytes, FLASH_ERASED_BYTE);
    std::vector<std::uint8_t> found(blank.size());
    for (std::uint32_t sector = 0; sector < flash.sector_count(); ++sector) {
        reached(static_cast<std::uint32_t>(std::uint64_t{100} * sector / flash.sector_count()));
        if (!erase_sector(flash, sector, blank, found))
            return BIOS_FLASH_ERR_ERASE;
    }
    return 0;
}
