// What the tests of the flash share: a chassis in a folder of its own with this process as the card of slot 3, and
// ways to look at a flash from outside, through its files.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <random>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "bios_header.h"
#include "chassis_dir.h"
#include "flash_claim.h"
#include "flash_device.h"
#include "flash_folder.h"
#include "flash_geometry.h"
#include "flash_wear.h"
#include "nor_file.h"
#include "nor_file_driver.h"
#include "nor_file_layout.h"
#include "rest_of.h"
#include "temporary_folder.h"
#include "test_seed.h"

using flash_bytes = std::vector<std::uint8_t>;

constexpr unsigned TEST_SLOT = 3;
constexpr flash_geometry SMALL_FLASH = {.size_bytes = 64 << 10, .sector_bytes = 4 << 10, .page_bytes = 256};

inline bool all_are(const flash_bytes &bytes, std::uint8_t value)
{
    return std::all_of(bytes.begin(), bytes.end(), [value](std::uint8_t byte) { return byte == value; });
}

inline flash_bytes piece_of(const flash_bytes &bytes, std::size_t offset, std::size_t length)
{
    const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(offset);
    return flash_bytes(begin, begin + static_cast<std::ptrdiff_t>(length));
}

// Chance that is the same when a failed run is repeated with its seed.
inline std::mt19937 &test_random()
{
    static std::mt19937 random(test_seed());
    return random;
}

inline flash_bytes random_bytes(std::size_t count)
{
    flash_bytes bytes(count);
    for (std::uint8_t &byte : bytes)
        byte = static_cast<std::uint8_t>(test_random()());
    return bytes;
}

inline flash_bytes image_with_version(std::size_t size_bytes, int major, int minor)
{
    flash_bytes image = random_bytes(size_bytes);
    EXPECT_TRUE(
        bios_header_write({.major = major, .minor = minor, .month = 9, .day = 17, .year = 12}, image.data()));
    return image;
}

// Bytes that a card takes for a BIOS image.
inline flash_bytes random_image(std::size_t size_bytes)
{
    return image_with_version(size_bytes, 3, 5);
}

inline flash_bytes followed_by_erased(flash_bytes bytes, std::size_t size_bytes)
{
    bytes.resize(size_bytes, 0xff);
    return bytes;
}

// Runs something in a child process and returns its wait status.
inline int status_of_child(const std::function<int()> &work)
{
    std::cout.flush();
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(work());
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    return status;
}

inline bool was_killed(int status)
{
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

class chassis_flash_fixture : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(chassis_attach(dir, TEST_SLOT), 0);
        temporary_image_ = file_of("temporary", random_image(SMALL_FLASH.size_bytes));
        flash_temporary_image = temporary_image_.c_str();
    }

    void create_flash(unsigned instance = 0, const flash_geometry &geometry = SMALL_FLASH,
                      const flash_bytes &contents = {})
    {
        const std::string image = contents.empty() ? "" : file_of("initial", contents);
        ASSERT_EQ(nor_file_create(TEST_SLOT, instance, geometry, image), 0);
    }

    std::string file_of(const std::string &name, const flash_bytes &bytes) const
    {
        const std::string path = dir + "/" + name;
        std::ofstream file(path, std::ios::binary | std::ios::trunc);
        file.write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        EXPECT_TRUE(file.flush());
        return path;
    }

    std::string flash_file(const std::string &name, unsigned instance = 0) const
    {
        return dir + "/" + flash_file_path(TEST_SLOT, instance, name.c_str());
    }
    flash_bytes flash_contents(unsigned instance = 0) const
    {
        std::ifstream file(flash_file("data", instance), std::ios::binary);
        return rest_of<flash_bytes>(file);
    }
    void write_flash_file(const std::string &name, const std::string &text, unsigned instance = 0) const
    {
        std::ofstream(flash_file(name, instance)) << text;
    }
    std::string text_of_flash_file(const std::string &name, unsigned instance = 0) const
    {
        std::ifstream file(flash_file(name, instance));
        return rest_of(file);
    }
    void set_fault(const std::string &rule, unsigned instance = 0) const
    {
        write_flash_file("faults", rule + "\n", instance);
    }
    bool is_marked(unsigned instance = 0) const
    {
        return std::filesystem::exists(flash_file("programming", instance));
    }
    std::string violations() const { return text_of_flash_file("violations"); } // empty: none
    flash_wear wear(unsigned instance = 0) const
    {
        return flash_wear_load(flash_folder_path(TEST_SLOT, instance).c_str());
    }

    std::unique_ptr<nor_file> open_flash(flash_access access = flash_access::write, unsigned instance = 0) const
    {
        return nor_file::open(TEST_SLOT, instance, access);
    }

private:
    const temporary_folder folder_{"chassis_flash"};
    std::string temporary_image_;

protected:
    const std::string &dir = folder_.path();
};
