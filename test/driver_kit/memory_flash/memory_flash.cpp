#include "memory_flash.h"

#include <algorithm>
#include <array>
#include <cerrno>

struct flash_part {
    memory_flash &flash;
    bool writes;
    flash_wear wear = {};
};

namespace
{

bool fail(int reason)
{
    errno = reason;
    return false;
}

bool fits(const flash_part *part, std::uint32_t offset, std::uint32_t length)
{
    const std::uint32_t size = part->flash.geometry.size_bytes;
    return length > 0 && offset < size && length <= size - offset;
}

bool may_change(const flash_part *part, std::uint32_t sector)
{
    if (!part->writes)
        return fail(EBADF);
    return !part->flash.protected_sectors.contains(sector) || fail(EPERM);
}

flash_part *open_part(unsigned instance, flash_access access)
{
    if (instance >= FLASH_INSTANCE_COUNT || memory_flash_of(instance).bytes.empty()) {
        errno = instance >= FLASH_INSTANCE_COUNT ? EINVAL : ENOENT;
        return nullptr;
    }
    memory_flash &flash = memory_flash_of(instance);
    const bool writes = access == flash_access::write;
    if (writes && flash.has_writer) {
        errno = EBUSY;
        return nullptr;
    }
    flash.has_writer |= writes;
    return new flash_part{flash, writes};
}

void close_part(flash_part *part)
{
    if (part->writes)
        part->flash.has_writer = false;
    delete part;
}

bool erase(flash_part *part, std::uint32_t sector)
{
    const std::uint32_t sector_bytes = part->flash.geometry.sector_bytes;
    if (sector >= part->flash.geometry.size_bytes / sector_bytes)
        return fail(EINVAL);
    if (!may_change(part, sector))
        return false;
    ++part->wear.erases;
    std::fill_n(part->flash.bytes.begin() + static_cast<std::ptrdiff_t>(sector * sector_bytes), sector_bytes,
                FLASH_ERASED_BYTE);
    return true;
}

bool program(flash_part *part, std::uint32_t offset, const std::uint8_t *bytes, std::uint32_t length)
{
    const flash_geometry &geometry = part->flash.geometry;
    if (!fits(part, offset, length) || offset % geometry.page_bytes + length > geometry.page_bytes)
        return fail(EINVAL);
    if (!may_change(part, offset / geometry.sector_bytes))
        return false;
    ++part->wear.programs;
    std::copy_n(bytes, length, part->flash.bytes.begin() + offset);
    return true;
}

bool read(flash_part *part, std::uint32_t offset, std::uint8_t *bytes_out, std::uint32_t length)
{
    if (!fits(part, offset, length))
        return fail(EINVAL);
    ++part->wear.reads;
    std::copy_n(part->flash.bytes.begin() + offset, length, bytes_out);
    return true;
}

bool set_marked(flash_part *part, bool marked)
{
    if (!part->writes)
        return fail(EBADF);
    part->flash.marked = marked;
    return true;
}

} // namespace

memory_flash &memory_flash_of(unsigned instance)
{
    static std::array<memory_flash, FLASH_INSTANCE_COUNT> flashes;
    return flashes[instance];
}

const flash_driver memory_flash_driver = {
    .name = "memory_flash",
    .open = open_part,
    .close = close_part,
    .geometry = [](const flash_part *part) -> const flash_geometry & { return part->flash.geometry; },
    .is_protected = [](const flash_part *part,
                       std::uint32_t sector) { return part->flash.protected_sectors.contains(sector); },
    .erase = erase,
    .program = program,
    .read = read,
    .sync = [](flash_part *) { return true; },
    .is_marked = [](const flash_part *part) { return part->flash.marked; },
    .set_marker = [](flash_part *part) { return set_marked(part, true); },
    .clear_marker = [](flash_part *part) { return set_marked(part, false); },
    .wear = [](const flash_part *part) -> const flash_wear & { return part->wear; },
};
