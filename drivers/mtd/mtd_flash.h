// An opened MTD as a flash of this card: erased, programmed and read by the kernel's calls on its character device.
// Nothing of it is cached: each read asks the part. Its writer, its marker and its wear are kept on the card's
// storage (flash_state.h), so that they are there whatever the flash holds.
//
// Concurrency: one writer at a time in the processes of this card, readers at any time. Other programs that write
// MTDs know nothing of it.
//
// Failures as of flash_driver.h. What the kernel does not want to be changed is EPERM; whatever else it reports for
// a place that fits is EIO, a part that is gone included.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "flash_driver.h"
#include "flash_state.h"
#include "mtd_calls.h"
#include "mtd_geometry.h"

class mtd_flash
{
public:
    // Opens the MTD of a name.
    //   slot, instance  whose flash it is: where its state is kept. A writer makes that folder when there is none.
    //   problem         a text for a person when it is not opened; empty when it has a writer already
    // Null with errno: ENOENT when there is no MTD of the name, EINVAL when there are several or it is none that
    // can be programmed, EBUSY when it has a writer already, or that of the system call that failed.
    static std::unique_ptr<mtd_flash> open(const mtd_calls &calls, unsigned slot, unsigned instance,
                                           const std::string &name, flash_access access, std::string &problem);

    const flash_geometry &geometry() const { return geometry_; }
    const flash_wear &wear() const { return state_.wear(); }

    // Whether the MTD is not writeable as a whole, or the sector is locked, or nobody can tell whether it is. The
    // kernel is asked once for each sector. What is locked stays so: to unlock it is up to who has locked it.
    bool is_protected(std::uint32_t sector) const;

    [[nodiscard]] bool erase(std::uint32_t sector);
    [[nodiscard]] bool program(std::uint32_t offset, const std::uint8_t *bytes, std::uint32_t length);
    [[nodiscard]] bool read(std::uint32_t offset, std::uint8_t *bytes_out, std::uint32_t length);
    [[nodiscard]] bool sync();

    [[nodiscard]] bool is_marked() const { return state_.is_marked(); }
    [[nodiscard]] bool set_marker() { return state_.set_marker(); }
    [[nodiscard]] bool clear_marker() { return state_.clear_marker(); }

private:
    enum class protection : std::uint8_t { unknown, none, locked };

    explicit mtd_flash(const mtd_calls &calls) : calls_(calls) {}

    bool open_device(const std::string &name, flash_access access, std::string &problem);
    bool become_writer(unsigned slot, unsigned instance, std::string &problem);
    mtd_device open_node(int flags) const;
    bool describe(mtd_description &mtd) const;
    bool describe_regions(mtd_description &mtd) const;
    protection protection_of(std::uint32_t sector) const;
    std::uint32_t sector_count() const { return geometry_.size_bytes / geometry_.sector_bytes; }
    bool fits(std::uint32_t offset, std::uint32_t length) const;
    bool may_change(std::uint32_t sector) const;
    bool write_all_at(std::uint32_t offset, const std::uint8_t *bytes, std::uint32_t length);

    const mtd_calls &calls_;
    std::string mtd_; // "mtd0"
    flash_state state_;
    mtd_device device_;
    flash_geometry geometry_;
    std::uint32_t write_bytes_ = 1;
    bool is_writeable_ = false;
    mutable std::vector<protection> protections_; // by sector
};
