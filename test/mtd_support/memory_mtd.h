// The kernel's MTDs, played: character devices of a private folder with the manners of the kernel's driver for NOR
// flash, which fail when they are told to. What each holds lies in a file, so that all processes see the same.
#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "flash_geometry.h"
#include "mtd_calls.h"

enum class mtd_operation : std::uint8_t { info, is_locked, erase, write, read };

struct memory_mtd {
    std::string name;
    std::uint8_t type = 3; // NOR flash
    std::uint32_t flags = 0xc00;
    std::uint64_t size_bytes = 64 << 10;
    std::uint32_t erase_bytes = 4 << 10;
    std::uint32_t write_bytes = 1;
    struct region {
        std::uint32_t offset, erase_bytes, count;
    };
    std::vector<region> regions = {};

    bool has_locks = true;
    std::set<std::uint32_t> locked_sectors = {};

    std::string device_number = "90:"; // of sysfs, followed by twice the number of the MTD
};

// One kernel's, for the life of the object. Numbers are given in the order in which MTDs are added.
class memory_mtds
{
public:
    memory_mtds();
    ~memory_mtds();
    memory_mtds(const memory_mtds &) = delete;
    memory_mtds &operator=(const memory_mtds &) = delete;

    const mtd_calls &calls() const { return calls_; }

    // The new MTD is blank. The reference is valid until the next add().
    memory_mtd &add(const memory_mtd &mtd);
    // Makes what the kernel says of it what it says now: for changes after add().
    void describe_again(unsigned number) const;
    void remove(unsigned number);
    memory_mtd &mtd(unsigned number) { return mtds_.at(number); }

    std::vector<std::uint8_t> contents(unsigned number = 0) const;
    void write_contents(const std::vector<std::uint8_t> &bytes, unsigned number = 0) const;

    // What an operation is to fail with: an error number, or 0. Asked before it is done.
    using fault_source = std::function<int(mtd_operation operation, std::uint64_t offset)>;
    fault_source fault = [](mtd_operation, std::uint64_t) { return 0; };
    std::size_t bytes_at_once = SIZE_MAX; // a read or a write ends after so many

    unsigned operations = 0; // that changed something
    unsigned closed_writers = 0;
    unsigned opened = 0; // and not closed yet
    bool is_closed_on_exec = true;
    std::vector<std::size_t> write_lengths = {};

private:
    std::string sysfs_folder(unsigned number) const;
    std::string node(unsigned number) const;
    int change(int fd, std::uint64_t offset, std::size_t length, const std::uint8_t *bytes_to_and);
    int call_ioctl(int fd, unsigned long request, void *argument);
    int open_node(const char *path, int flags);
    void close_node(int fd);
    unsigned number_of(int fd) const;
    bool is_for_writing(int fd) const;

    std::string folder_, sysfs_, devices_;
    mtd_calls calls_ = {};
    std::vector<memory_mtd> mtds_;
    struct opening {
        int fd;
        unsigned number;
        bool writes;
    };
    std::vector<opening> openings_;
};
