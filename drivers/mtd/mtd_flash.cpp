#include "mtd_flash.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>

#include "mtd_list.h"

namespace
{

bool refuse(int reason)
{
    errno = reason;
    return false;
}

// After a failed call for a place that fits.
bool refuse_as_kernel()
{
    return refuse(errno == EROFS || errno == EACCES || errno == EPERM ? EPERM : EIO);
}

bool refuse_because(std::string &problem, const std::string &text, int reason)
{
    problem = text;
    return refuse(reason);
}

// After a system call that failed.
bool refuse_with_errno(std::string &problem, const std::string &what)
{
    const int failure = errno;
    return refuse_because(problem, what + ": " + std::strerror(failure), failure);
}

} // namespace

std::unique_ptr<mtd_flash> mtd_flash::open(const mtd_calls &calls, unsigned slot, unsigned instance,
                                           const std::string &name, flash_access access, std::string &problem)
{
    problem.clear();
    std::unique_ptr<mtd_flash> flash(new mtd_flash(calls));
    const auto mtd = mtd_named(calls, name, problem);
    if (!mtd)
        return nullptr;
    flash->mtd_ = *mtd;
    if (access == flash_access::read)
        (void)flash->state_.open(slot, instance); // without a folder it has no marker yet, and its wear is not kept
    else if (!flash->become_writer(slot, instance, problem))
        return nullptr;
    if (!flash->open_device(name, access, problem))
        return nullptr;
    return flash;
}

bool mtd_flash::become_writer(unsigned slot, unsigned instance, std::string &problem)
{
    if (make_flash_folder(slot, instance) && state_.open(slot, instance) && state_.become_writer())
        return true;
    return errno == EBUSY ? false : refuse_with_errno(problem, flash_folder_path(slot, instance));
}

bool mtd_flash::open_device(const std::string &name, flash_access access, std::string &problem)
{
    const bool writes = access == flash_access::write;
    device_ = open_node(writes ? O_RDWR : O_RDONLY);
    const bool was_denied = writes && !device_ && errno == EACCES;
    if (was_denied) // as the kernel does when the MTD is not writeable: then all of it is protected
        device_ = open_node(O_RDONLY);
    if (!device_)
        return refuse_with_errno(problem, mtd_);
    mtd_description mtd;
    if (!describe(mtd))
        return refuse_with_errno(problem, mtd_);
    // Numbers are given anew when an MTD goes and another one comes: this one stays while it is open.
    if (mtd_attribute(calls_, mtd_, "name") != name)
        return refuse_because(problem, mtd_ + ": its name has changed", ENOENT);
    if (was_denied && mtd.is_writeable)
        return refuse_because(problem, mtd_ + ": " + std::strerror(EACCES), EACCES);
    const auto geometry = mtd_geometry(mtd, problem);
    if (!geometry)
        return refuse_because(problem, mtd_ + " cannot be used: " + problem, EINVAL);
    geometry_ = *geometry;
    write_bytes_ = mtd.write_bytes;
    is_writeable_ = mtd.is_writeable;
    protections_.assign(writes ? sector_count() : 0, protection::unknown);
    return true;
}

// Opens the character device, and no other file that has its name.
mtd_device mtd_flash::open_node(int flags) const
{
    const std::string path = std::string(calls_.devices) + "/" + mtd_;
    mtd_device node(calls_, calls_.open(path.c_str(), flags | O_NOCTTY | O_CLOEXEC));
    if (!node)
        return {};
    unsigned major = 0, minor = 0;
    if (!calls_.device_number(node.get(), major, minor))
        return {};
    if (mtd_attribute(calls_, mtd_, "dev") != std::to_string(major) + ":" + std::to_string(minor)) {
        errno = ENXIO;
        return {};
    }
    return node;
}

bool mtd_flash::describe(mtd_description &mtd) const
{
    mtd_info_user info = {};
    if (calls_.ioctl(device_.get(), MEMGETINFO, &info) != 0)
        return false;
    mtd.type = info.type;
    mtd.is_writeable = (info.flags & MTD_WRITEABLE) != 0;
    mtd.erase_bytes = info.erasesize;
    mtd.write_bytes = info.writesize;
    // The number of bytes in info has 32 bits, whatever the size.
    const auto size_bytes = mtd_number_attribute(calls_, mtd_, "size");
    if (!size_bytes || static_cast<std::uint32_t>(*size_bytes) != info.size)
        return refuse(EINVAL);
    mtd.size_bytes = *size_bytes;
    return describe_regions(mtd);
}

bool mtd_flash::describe_regions(mtd_description &mtd) const
{
    int count = 0;
    if (calls_.ioctl(device_.get(), MEMGETREGIONCOUNT, &count) != 0)
        return false;
    for (int index = 0; index < count; ++index) {
        region_info_user region = {};
        region.regionindex = static_cast<std::uint32_t>(index);
        if (calls_.ioctl(device_.get(), MEMGETREGIONINFO, &region) != 0)
            return false;
        mtd.regions.push_back({.offset = region.offset, .erase_bytes = region.erasesize});
    }
    return true;
}

bool mtd_flash::is_protected(std::uint32_t sector) const
{
    if (sector >= protections_.size())
        return false;
    if (!is_writeable_)
        return true;
    if (protections_[sector] == protection::unknown)
        protections_[sector] = protection_of(sector);
    return protections_[sector] == protection::locked;
}

mtd_flash::protection mtd_flash::protection_of(std::uint32_t sector) const
{
    erase_info_user place = {.start = sector * geometry_.sector_bytes, .length = geometry_.sector_bytes};
    const int locked = calls_.ioctl(device_.get(), MEMISLOCKED, &place);
    const bool has_no_locks = locked < 0 && (errno == EOPNOTSUPP || errno == ENOTTY);
    return locked == 0 || has_no_locks ? protection::none : protection::locked;
}

bool mtd_flash::fits(std::uint32_t offset, std::uint32_t length) const
{
    return length > 0 && offset < geometry_.size_bytes && length <= geometry_.size_bytes - offset;
}

bool mtd_flash::may_change(std::uint32_t sector) const
{
    if (!state_.is_writer())
        return refuse(EBADF);
    return !is_protected(sector) || refuse(EPERM);
}

bool mtd_flash::erase(std::uint32_t sector)
{
    if (sector >= sector_count())
        return refuse(EINVAL);
    if (!may_change(sector))
        return false;
    ++state_.wear().erases;
    erase_info_user64 place = {.start = std::uint64_t{sector} * geometry_.sector_bytes,
                               .length = geometry_.sector_bytes};
    return calls_.ioctl(device_.get(), MEMERASE64, &place) == 0 || refuse_as_kernel();
}

bool mtd_flash::program(std::uint32_t offset, const std::uint8_t *bytes, std::uint32_t length)
{
    if (!fits(offset, length) || offset % geometry_.page_bytes + length > geometry_.page_bytes)
        return refuse(EINVAL);
    if (!may_change(offset / geometry_.sector_bytes))
        return false;
    ++state_.wear().programs;
    const std::uint32_t before = offset % write_bytes_;
    const std::uint32_t behind = (write_bytes_ - (before + length) % write_bytes_) % write_bytes_;
    if (before + behind == 0)
        return write_all_at(offset, bytes, length);
    // What the part wants to be given beside, without a bit to clear. It stays within the page.
    std::vector<std::uint8_t> whole(before + length + behind, FLASH_ERASED_BYTE);
    std::copy_n(bytes, length, whole.begin() + before);
    return write_all_at(offset - before, whole.data(), static_cast<std::uint32_t>(whole.size()));
}

bool mtd_flash::write_all_at(std::uint32_t offset, const std::uint8_t *bytes, std::uint32_t length)
{
    while (length > 0) {
        const ssize_t wrote = calls_.pwrite(device_.get(), bytes, length, offset);
        if (wrote < 0 && errno == EINTR)
            continue;
        if (wrote < 0)
            return refuse_as_kernel();
        if (wrote == 0)
            return refuse(EIO);
        bytes += wrote;
        offset += static_cast<std::uint32_t>(wrote);
        length -= static_cast<std::uint32_t>(wrote);
    }
    return true;
}

bool mtd_flash::read(std::uint32_t offset, std::uint8_t *bytes_out, std::uint32_t length)
{
    if (!fits(offset, length))
        return refuse(EINVAL);
    ++state_.wear().reads;
    ssize_t got = -1;
    do {
        got = calls_.pread(device_.get(), bytes_out, length, offset);
    } while (got < 0 && errno == EINTR);
    // The kernel reads all of a place that is there: less is a part that has failed.
    return got == static_cast<ssize_t>(length) || refuse(EIO);
}

// The kernel has no fsync for MTDs. It has the part finish what is on its way when an opening for writing is
// closed.
bool mtd_flash::sync()
{
    if (!state_.is_writer() || !is_writeable_)
        return true; // nothing was changed
    return static_cast<bool>(open_node(O_RDWR)) || refuse(EIO);
}
