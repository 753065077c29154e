#include "memory_mtd.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <mtd/mtd-user.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <unistd.h>

#include "rest_of.h"

namespace
{

namespace files = std::filesystem;

constexpr unsigned CHARACTER_DEVICE_MAJOR = 90;

memory_mtds *kernel; // the one there is

int fail(int reason)
{
    errno = reason;
    return -1;
}

void write_line(const std::string &path, const std::string &line)
{
    std::ofstream(path) << line << "\n";
}

} // namespace

memory_mtds::memory_mtds()
{
    char folder[] = "/tmp/memory_mtds.XXXXXX";
    if (kernel != nullptr || ::mkdtemp(folder) == nullptr)
        throw std::runtime_error("memory_mtds");
    folder_ = folder;
    sysfs_ = folder_ + "/sysfs";
    devices_ = folder_ + "/devices";
    files::create_directory(sysfs_);
    files::create_directory(devices_);
    kernel = this;
    calls_ = {
        .sysfs = sysfs_.c_str(),
        .devices = devices_.c_str(),
        .open = [](const char *path, int flags) { return kernel->open_node(path, flags); },
        .close = [](int fd) { kernel->close_node(fd); },
        .device_number =
            [](int fd, unsigned &major_out, unsigned &minor_out) {
                major_out = CHARACTER_DEVICE_MAJOR;
                minor_out = 2 * kernel->number_of(fd);
                return true;
            },
        .ioctl = [](int fd, unsigned long request,
                    void *argument) { return kernel->call_ioctl(fd, request, argument); },
        .pread = [](int fd, void *bytes_out, std::size_t length, std::uint64_t offset) -> ssize_t {
            if (const int reason = kernel->fault(mtd_operation::read, offset); reason != 0)
                return fail(reason);
            return ::pread(fd, bytes_out, std::min(length, kernel->bytes_at_once), static_cast<off_t>(offset));
        },
        .pwrite = [](int fd, const void *bytes, std::size_t length, std::uint64_t offset) -> ssize_t {
            const auto wrote = std::min(length, kernel->bytes_at_once);
            kernel->write_lengths.push_back(length);
            if (const int reason = kernel->fault(mtd_operation::write, offset); reason != 0)
                return fail(reason);
            const std::uint32_t unit = kernel->mtd(kernel->number_of(fd)).write_bytes;
            if (offset % unit != 0 || length % unit != 0)
                return fail(EINVAL);
            return kernel->change(fd, offset, wrote, static_cast<const std::uint8_t *>(bytes)) == 0
                       ? static_cast<ssize_t>(wrote)
                       : -1;
        },
    };
}

memory_mtds::~memory_mtds()
{
    std::error_code ignored; // the folder is below /tmp
    files::remove_all(folder_, ignored);
    kernel = nullptr;
}

std::string memory_mtds::sysfs_folder(unsigned number) const
{
    return sysfs_ + "/mtd" + std::to_string(number);
}

std::string memory_mtds::node(unsigned number) const
{
    return devices_ + "/mtd" + std::to_string(number);
}

memory_mtd &memory_mtds::add(const memory_mtd &mtd)
{
    const auto number = static_cast<unsigned>(mtds_.size());
    mtds_.push_back(mtd);
    mtds_.back().device_number += std::to_string(2 * number);
    files::create_directory(sysfs_folder(number));
    files::create_directory(sysfs_folder(number) + "ro"); // the kernel has it, with no attributes
    describe_again(number);
    const auto held_bytes = static_cast<std::size_t>(std::min<std::uint64_t>(mtd.size_bytes, 1 << 20));
    write_contents(std::vector<std::uint8_t>(held_bytes, FLASH_ERASED_BYTE), number);
    return mtds_.back();
}

void memory_mtds::describe_again(unsigned number) const
{
    const memory_mtd &mtd = mtds_.at(number);
    const std::string at = sysfs_folder(number) + "/";
    write_line(at + "name", mtd.name);
    write_line(at + "dev", mtd.device_number);
    write_line(at + "size", std::to_string(mtd.size_bytes));
}

void memory_mtds::remove(unsigned number)
{
    files::remove_all(sysfs_folder(number));
    files::remove(node(number));
}

std::vector<std::uint8_t> memory_mtds::contents(unsigned number) const
{
    std::ifstream file(node(number), std::ios::binary);
    return rest_of<std::vector<std::uint8_t>>(file);
}

void memory_mtds::write_contents(const std::vector<std::uint8_t> &bytes, unsigned number) const
{
    std::ofstream(node(number), std::ios::binary)
        .write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

unsigned memory_mtds::number_of(int fd) const
{
    const auto found =
        std::find_if(openings_.begin(), openings_.end(), [fd](const opening &open) { return open.fd == fd; });
    if (found == openings_.end())
        throw std::logic_error("a descriptor that is not open");
    return found->number;
}

bool memory_mtds::is_for_writing(int fd) const
{
    return std::any_of(openings_.begin(), openings_.end(),
                       [fd](const opening &open) { return open.fd == fd && open.writes; });
}

int memory_mtds::open_node(const char *path, int flags)
{
    const bool writes = (flags & O_ACCMODE) != O_RDONLY;
    is_closed_on_exec = is_closed_on_exec && (flags & O_CLOEXEC) != 0;
    const auto number = static_cast<unsigned>(std::stoul(files::path(path).filename().string().substr(3)));
    if (number < mtds_.size() && writes && (mtd(number).flags & MTD_WRITEABLE) == 0)
        return fail(EACCES);
    const int fd = ::open(path, (writes ? O_RDWR : O_RDONLY) | O_CLOEXEC);
    if (fd < 0)
        return -1;
    openings_.push_back({fd, number, writes});
    ++opened;
    return fd;
}

void memory_mtds::close_node(int fd)
{
    if (is_for_writing(fd))
        ++closed_writers;
    (void)number_of(fd);
    std::erase_if(openings_, [fd](const opening &open) { return open.fd == fd; });
    --opened;
    (void)::close(fd);
}

// Sets a place to what it holds and the bytes have in common, or to erased bytes without them.
int memory_mtds::change(int fd, std::uint64_t offset, std::size_t length, const std::uint8_t *bytes_to_and)
{
    const memory_mtd &changed = mtd(number_of(fd));
    if (!is_for_writing(fd))
        return fail(EBADF);
    if (offset + length > changed.size_bytes)
        return fail(EINVAL);
    for (std::uint64_t at = offset; at < offset + length; ++at) {
        if (changed.locked_sectors.contains(static_cast<std::uint32_t>(at / changed.erase_bytes)))
            return fail(EROFS);
    }
    std::vector<std::uint8_t> bytes(length, FLASH_ERASED_BYTE);
    if (bytes_to_and != nullptr) {
        if (::pread(fd, bytes.data(), length, static_cast<off_t>(offset)) != static_cast<ssize_t>(length))
            return fail(EIO);
        for (std::size_t index = 0; index < length; ++index)
            bytes[index] &= bytes_to_and[index];
    }
    ++operations;
    return ::pwrite(fd, bytes.data(), length, static_cast<off_t>(offset)) == static_cast<ssize_t>(length) ? 0 : -1;
}

int memory_mtds::call_ioctl(int fd, unsigned long request, void *argument)
{
    const memory_mtd &asked = mtd(number_of(fd));
    if (request == MEMGETINFO) {
        if (const int reason = fault(mtd_operation::info, 0); reason != 0)
            return fail(reason);
        mtd_info_user info = {};
        info.type = asked.type;
        info.flags = asked.flags;
        info.size = static_cast<std::uint32_t>(asked.size_bytes);
        info.erasesize = asked.erase_bytes;
        info.writesize = asked.write_bytes;
        *static_cast<mtd_info_user *>(argument) = info;
        return 0;
    }
    if (request == MEMGETREGIONCOUNT) {
        *static_cast<int *>(argument) = static_cast<int>(asked.regions.size());
        return 0;
    }
    if (request == MEMGETREGIONINFO) {
        auto &region = *static_cast<region_info_user *>(argument);
        if (region.regionindex >= asked.regions.size())
            return fail(EINVAL);
        const memory_mtd::region &found = asked.regions[region.regionindex];
        region.offset = found.offset;
        region.erasesize = found.erase_bytes;
        region.numblocks = found.count;
        return 0;
    }
    if (request == MEMISLOCKED) {
        const auto &place = *static_cast<erase_info_user *>(argument);
        if (const int reason = fault(mtd_operation::is_locked, place.start); reason != 0)
            return fail(reason);
        if (!asked.has_locks)
            return fail(EOPNOTSUPP);
        return asked.locked_sectors.contains(place.start / asked.erase_bytes) ? 1 : 0;
    }
    if (request == MEMERASE64) {
        const auto &place = *static_cast<erase_info_user64 *>(argument);
        if (const int reason = fault(mtd_operation::erase, place.start); reason != 0)
            return fail(reason);
        if (place.start % asked.erase_bytes != 0 || place.length % asked.erase_bytes != 0 || place.length == 0)
            return fail(EINVAL);
        return change(fd, place.start, static_cast<std::size_t>(place.length), nullptr);
    }
    return fail(ENOTTY);
}
