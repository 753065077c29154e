// The kit's flash for the MTD driver: an MTD of this machine's kernel, which the environment variable
// BIOS_DAEMON_TEST_MTD names. What it holds is lost. Some sectors are enough; each test erases what is not blank.
// An MTD whose sectors nobody can lock is locked by its errors on demand, where it has them.
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <mtd/mtd-user.h>
#include <stdexcept>
#include <string>
#include <sys/ioctl.h>
#include <unistd.h>

#include "chassis_dir.h"
#include "flash_surroundings.h"
#include "mtd_driver.h"
#include "mtd_faults.h"
#include "read_all_at.h"
#include "unique_fd.h"

const flash_driver &tested_flash_driver = mtd_driver;

namespace
{

constexpr const char *NAME_VARIABLE = "BIOS_DAEMON_TEST_MTD";
constexpr unsigned SLOT = 3;

std::string place; // folder of the card

std::runtime_error failure(const std::string &what)
{
    return std::runtime_error(what + ": " + std::generic_category().message(errno));
}

std::string wanted_name()
{
    const char *name = std::getenv(NAME_VARIABLE);
    if (name == nullptr)
        throw std::runtime_error(std::string(NAME_VARIABLE) + " has to name an MTD whose contents may be lost");
    return name;
}

// Not where the driver looks: /proc/mtd has lines like: mtd0: 00800000 00001000 "primary"
std::string node_of(const std::string &name)
{
    std::ifstream list("/proc/mtd");
    for (std::string line; std::getline(list, line);) {
        if (line.ends_with(" \"" + name + "\""))
            return "/dev/" + line.substr(0, line.find(':'));
    }
    throw std::runtime_error("/proc/mtd has no \"" + name + "\"");
}

// The MTD without the driver.
class raw_mtd
{
public:
    explicit raw_mtd(int flags) : fd_(::open(node_of(wanted_name()).c_str(), flags | O_CLOEXEC))
    {
        if (!fd_ || ::ioctl(fd_.get(), MEMGETINFO, &info_) != 0)
            throw failure(wanted_name());
    }

    // MEMLOCK or MEMUNLOCK; nothing happens to a part without locks.
    void change_locks(unsigned long request, std::uint32_t start, std::uint32_t length) const
    {
        erase_info_user range = {.start = start, .length = length};
        if (::ioctl(fd_.get(), request, &range) != 0 && errno != EOPNOTSUPP)
            throw failure("locks of " + wanted_name());
    }
    // Some parts take an order to lock and do not carry it out.
    bool is_locked(std::uint32_t start) const
    {
        erase_info_user range = {.start = start, .length = info_.erasesize};
        return ::ioctl(fd_.get(), MEMISLOCKED, &range) == 1;
    }
    void erase(std::uint32_t start) const
    {
        erase_info_user range = {.start = start, .length = info_.erasesize};
        if (::ioctl(fd_.get(), MEMERASE, &range) != 0)
            throw failure("erasing " + wanted_name());
    }
    std::vector<std::uint8_t> contents() const
    {
        std::vector<std::uint8_t> bytes(info_.size);
        if (!read_all_at(fd_.get(), 0, bytes.data(), bytes.size()))
            throw failure("reading " + wanted_name());
        return bytes;
    }
    const mtd_info_user &info() const { return info_; }

private:
    unique_fd fd_;
    mtd_info_user info_ = {};
};

bool is_blank(const std::uint8_t *bytes, std::size_t length)
{
    for (std::size_t index = 0; index < length; ++index) {
        if (bytes[index] != FLASH_ERASED_BYTE)
            return false;
    }
    return true;
}

} // namespace

void make_flash()
{
    char folder[] = "/tmp/driver_kit.XXXXXX";
    if (::mkdtemp(folder) == nullptr || chassis_attach(folder, SLOT) != 0)
        throw failure(folder);
    place = folder;
    const std::string names = place + "/" + chassis_slot_path(SLOT, MTD_NAMES_FOLDER);
    std::filesystem::create_directories(names);
    std::ofstream(names + "/" + MTD_NAME_FILES[0]) << wanted_name() << "\n";

    if (has_mtd_faults())
        clear_mtd_faults();
    const raw_mtd mtd(O_RDWR);
    mtd.change_locks(MEMUNLOCK, 0, mtd.info().size);
    const std::vector<std::uint8_t> before = mtd.contents();
    for (std::uint32_t start = 0; start < mtd.info().size; start += mtd.info().erasesize) {
        if (!is_blank(before.data() + start, mtd.info().erasesize))
            mtd.erase(start);
    }
}

bool protect_flash_sector(std::uint32_t sector)
{
    const raw_mtd mtd(O_RDWR);
    mtd.change_locks(MEMLOCK, sector * mtd.info().erasesize, mtd.info().erasesize);
    if (has_mtd_faults())
        set_mtd_fault("locked_at", sector * mtd.info().erasesize);
    return mtd.is_locked(sector * mtd.info().erasesize);
}

std::vector<std::uint8_t> flash_contents()
{
    return raw_mtd(O_RDONLY).contents();
}

void remove_flash()
{
    if (has_mtd_faults())
        clear_mtd_faults();
    const raw_mtd mtd(O_RDWR);
    mtd.change_locks(MEMUNLOCK, 0, mtd.info().size);
    std::filesystem::remove_all(place);
}

bool flash_is_shared_by_processes()
{
    return true;
}
