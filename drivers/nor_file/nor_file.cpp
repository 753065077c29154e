// A file that is read as such, and changed through a shared mapping.
#include "nor_file.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "byte_runs.h"
#include "chassis_dir.h"
#include "read_all_at.h"

namespace
{

constexpr int EXIT_STATUS_OF_KILLED = 128 + SIGKILL;
constexpr std::uint32_t MARKER_STEPS = 2; // changed, and made to last

// How much of an operation is done, and which bit of it wrong.
struct flash_extent {
    std::uint32_t amount;
    std::optional<std::uint64_t> wrong_bit = {}; // any number: the remainder counts

    // Calls damage(byte, mask) for the wrong bit.
    template<class call>
    void apply_damage(call &&damage) const
    {
        if (!wrong_bit)
            return;
        const auto bit = static_cast<std::uint32_t>(*wrong_bit % (std::uint64_t{amount} * 8));
        damage(bit / 8, static_cast<std::uint8_t>(1U << bit % 8));
    }
};

flash_marker_wait wait_of(const flash_extent &extent)
{
    return extent.amount < MARKER_STEPS ? flash_marker_wait::none : flash_marker_wait::stable_storage;
}

bool refuse(int reason)
{
    errno = reason;
    return false;
}

// "7" or "3-5"; blanks around are allowed.
bool parse_sectors(const std::string &line, std::uint32_t &first, std::uint32_t &last)
{
    std::istringstream text(line);
    if (line.find_first_not_of("0123456789- \t") != std::string::npos || !(text >> first))
        return false;
    last = first;
    char dash = '\0';
    if (text >> dash)
        return dash == '-' && text >> last && (text >> std::ws).eof();
    return true;
}

} // namespace

std::unique_ptr<nor_file> nor_file::open(unsigned slot, unsigned instance, flash_access access)
{
    std::unique_ptr<nor_file> device(new nor_file);
    if (!device->open_files(slot, instance, access))
        return nullptr;
    return device;
}

bool nor_file::open_files(unsigned slot, unsigned instance, flash_access access)
{
    if (instance >= FLASH_INSTANCE_COUNT)
        return refuse(EINVAL);
    const bool writes = access == flash_access::write;
    if (!state_.open(slot, instance))
        return false;
    data_file_.reset(
        ::openat(folder().fd.get(), FLASH_FILE_DATA, (writes ? O_RDWR : O_RDONLY) | O_NONBLOCK | O_CLOEXEC));
    if (!data_file_)
        return false;
    if (!load_geometry())
        return false;
    if (writes && (!state_.become_writer() || !map() || !load_protected()))
        return false;
    timing_ = flash_timing(chassis_read_value(folder().file(FLASH_FILE_TIMING), 0) != 0);
    next_fault_ = [rules = flash_fault_rules(folder())](flash_operation operation, std::uint32_t sector) mutable {
        return rules.take(operation, sector);
    };
    return true;
}

bool nor_file::load_geometry()
{
    geometry_.size_bytes = chassis_read_value(folder().file(FLASH_FILE_SIZE_BYTES), 0);
    geometry_.sector_bytes = chassis_read_value(folder().file(FLASH_FILE_SECTOR_BYTES), 0);
    geometry_.page_bytes = chassis_read_value(folder().file(FLASH_FILE_PAGE_BYTES), 0);
    struct stat status;
    if (::fstat(data_file_.get(), &status) != 0)
        return false;
    if (!flash_geometry_valid(geometry_) || status.st_size != static_cast<off_t>(geometry_.size_bytes))
        return refuse(EINVAL);
    return true;
}

bool nor_file::map()
{
    void *mapping = ::mmap(nullptr, geometry_.size_bytes, PROT_READ | PROT_WRITE, MAP_SHARED, data_file_.get(), 0);
    if (mapping == MAP_FAILED)
        return false;
    data_ = static_cast<std::uint8_t *>(mapping);
    return true;
}

// A list that cannot be understood refuses the whole flash: erasing what someone meant to protect cannot be undone.
bool nor_file::load_protected()
{
    protected_.assign(sector_count(), false);
    std::string text, line;
    if (!chassis_read_file(folder().file(FLASH_FILE_PROTECTED), text))
        return errno == ENOENT;
    std::istringstream lines(text);
    while (std::getline(lines, line)) {
        if (line.find_first_not_of(" \t") == std::string::npos)
            continue;
        std::uint32_t first = 0, last = 0;
        if (!parse_sectors(line, first, last) || first > last || last >= sector_count())
            return refuse(EINVAL);
        for (std::uint32_t sector = first; sector <= last; ++sector)
            protected_[sector] = true;
    }
    return true;
}

nor_file::~nor_file()
{
    if (data_ != nullptr)
        (void)::munmap(data_, geometry_.size_bytes);
}

// Does an operation the way the faults say. change(extent) does so much of `amount` and returns its success.
template<class apply>
bool nor_file::perform(flash_operation operation, std::uint32_t sector, std::uint32_t amount, apply &&change)
{
    const flash_fault_order order = next_fault_(operation, sector);
    switch (order.fault) {
    case flash_fault::none:
        return change(flash_extent{amount});
    case flash_fault::fail:
        return refuse(EIO);
    case flash_fault::lie:
        return true;
    case flash_fault::part:
        return change(flash_extent{amount / 2});
    case flash_fault::flip:
        return change(flash_extent{amount, order.noise});
    case flash_fault::torn:
        (void)change(flash_extent{amount / 2});
        die(order.hold);
    case flash_fault::after:
        (void)change(flash_extent{amount});
        die(order.hold);
    case flash_fault::stop:
        die(order.hold);
    }
    return refuse(EIO);
}

void nor_file::die(bool hold)
{
    state_.save_wear();
    if (hold)
        (void)::kill(::getpid(), SIGSTOP);
    (void)::kill(::getpid(), SIGKILL);
    ::_exit(EXIT_STATUS_OF_KILLED); // the first process of a namespace cannot be killed from within
}

void nor_file::note_violation(const char *wanted, std::uint32_t place) const
{
    const unique_fd file(::openat(folder().fd.get(), FLASH_FILE_VIOLATIONS,
                                  O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_CLOEXEC, 0644));
    if (file)
        (void)::dprintf(file.get(), "%s at 0x%x\n", wanted, place);
}

bool nor_file::refuse_violation(int reason, const char *wanted, std::uint32_t place) const
{
    note_violation(wanted, place);
    return refuse(reason);
}

bool nor_file::fits(std::uint32_t offset, std::uint32_t length) const
{
    return length > 0 && offset < geometry_.size_bytes && length <= geometry_.size_bytes - offset;
}

bool nor_file::may_change(std::uint32_t sector, const char *wanted) const
{
    if (!state_.is_writer())
        return refuse_violation(EBADF, wanted, sector * geometry_.sector_bytes);
    if (is_protected(sector))
        return refuse(EPERM);
    return true;
}

// What was changed is the file's by now. Staying mapped, it would be held by this process until the end, as much of
// it as the flash is large.
void nor_file::work_on(std::uint32_t sector)
{
    if (sector != worked_on_)
        (void)::madvise(data_, geometry_.size_bytes, MADV_DONTNEED); // of a file's shared mapping nothing is lost
    worked_on_ = sector;
}

bool nor_file::erase(std::uint32_t sector)
{
    if (sector >= sector_count())
        return refuse_violation(EINVAL, "erase of a sector that is not there", sector);
    if (!may_change(sector, "erase by a reader"))
        return false;
    work_on(sector);
    ++state_.wear().erases;
    timing_.spend(FLASH_SECTOR_ERASE_NS);
    return perform(flash_operation::erase, sector, geometry_.sector_bytes, [&](const flash_extent &extent) {
        std::uint8_t *place = data_ + std::size_t{sector} * geometry_.sector_bytes;
        std::memset(place, FLASH_ERASED_BYTE, extent.amount);
        extent.apply_damage([&](std::uint32_t byte, std::uint8_t mask) {
            place[byte] = static_cast<std::uint8_t>(place[byte] & ~mask);
        });
        return true;
    });
}

bool nor_file::program(std::uint32_t offset, const std::uint8_t *bytes, std::uint32_t length)
{
    if (!fits(offset, length) || offset % geometry_.page_bytes + length > geometry_.page_bytes)
        return refuse_violation(EINVAL, "program of a place that is no part of a page", offset);
    const std::uint32_t sector = offset / geometry_.sector_bytes;
    if (!may_change(sector, "program by a reader"))
        return false;
    work_on(sector);
    std::uint8_t *place = data_ + offset;
    if (has_further_bits(bytes, place, length))
        note_violation("program of bytes that are not erased", offset);
    ++state_.wear().programs;
    timing_.spend(FLASH_PAGE_PROGRAM_NS);
    return perform(flash_operation::program, sector, length, [&](const flash_extent &extent) {
        std::vector<std::uint8_t> damaged; // pages are many: only then there is a copy
        extent.apply_damage([&](std::uint32_t byte, std::uint8_t mask) {
            damaged.assign(bytes, bytes + extent.amount);
            damaged[byte] ^= mask;
        });
        clear_bits(place, damaged.empty() ? bytes : damaged.data(), extent.amount);
        return true;
    });
}

bool nor_file::read(std::uint32_t offset, std::uint8_t *bytes_out, std::uint32_t length)
{
    if (!fits(offset, length))
        return refuse_violation(EINVAL, "read of a place that is not there", offset);
    ++state_.wear().reads;
    timing_.spend(FLASH_READ_BYTE_NS * length);
    return perform(flash_operation::read, offset / geometry_.sector_bytes, length, [&](const flash_extent &extent) {
        // Not out of the mapping: its pages would have to be brought in one by one for what is read once.
        if (!read_all_at(data_file_.get(), offset, bytes_out, extent.amount))
            return false;
        extent.apply_damage([&](std::uint32_t byte, std::uint8_t mask) { bytes_out[byte] ^= mask; });
        return true;
    });
}

bool nor_file::sync()
{
    return data_ == nullptr || ::msync(data_, geometry_.size_bytes, MS_SYNC) == 0; // a reader has changed nothing
}

bool nor_file::set_marker()
{
    if (!state_.is_writer())
        return refuse_violation(EBADF, "marker set by a reader", 0);
    return perform(flash_operation::marker, 0, MARKER_STEPS,
                   [&](const flash_extent &extent) { return state_.set_marker(wait_of(extent)); });
}

bool nor_file::clear_marker()
{
    if (!state_.is_writer())
        return refuse_violation(EBADF, "marker cleared by a reader", 0);
    return perform(flash_operation::marker, 0, MARKER_STEPS,
                   [&](const flash_extent &extent) { return state_.clear_marker(wait_of(extent)); });
}
