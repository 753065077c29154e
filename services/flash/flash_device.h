// A flash that is open, by whichever driver; closed with the object. The operations are those of flash_driver.h.
#pragma once

#include <cstdint>
#include <memory>

#include "flash_driver.h"

class flash_device
{
public:
    // Opens a flash of this card with the card's driver. Null with errno as of flash_driver::open.
    static std::unique_ptr<flash_device> open(unsigned instance, flash_access access)
    {
        flash_part *part = card_flash_driver->open(instance, access);
        return part == nullptr ? nullptr : std::make_unique<flash_device>(*card_flash_driver, part);
    }

    // Takes over a part that the driver has opened.
    flash_device(const flash_driver &driver, flash_part *part) : driver_(driver), part_(part) {}
    ~flash_device() { driver_.close(part_); }
    flash_device(const flash_device &) = delete;
    flash_device &operator=(const flash_device &) = delete;

    const flash_geometry &geometry() const { return driver_.geometry(part_); }
    std::uint32_t sector_count() const { return geometry().size_bytes / geometry().sector_bytes; }
    const flash_wear &wear() const { return driver_.wear(part_); }
    bool is_protected(std::uint32_t sector) const { return driver_.is_protected(part_, sector); }

    [[nodiscard]] bool erase(std::uint32_t sector) { return driver_.erase(part_, sector); }
    [[nodiscard]] bool program(std::uint32_t offset, const std::uint8_t *bytes, std::uint32_t length)
    {
        return driver_.program(part_, offset, bytes, length);
    }
    [[nodiscard]] bool read(std::uint32_t offset, std::uint8_t *bytes_out, std::uint32_t length)
    {
        return driver_.read(part_, offset, bytes_out, length);
    }
    [[nodiscard]] bool sync() { return driver_.sync(part_); }

    [[nodiscard]] bool is_marked() const { return driver_.is_marked(part_); }
    [[nodiscard]] bool set_marker() { return driver_.set_marker(part_); }
    [[nodiscard]] bool clear_marker() { return driver_.clear_marker(part_); }

private:
    const flash_driver &driver_;
    flash_part *part_;
};
