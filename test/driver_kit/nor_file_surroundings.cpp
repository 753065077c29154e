#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "chassis_dir.h"
#include "flash_folder.h"
#include "flash_surroundings.h"
#include "nor_file_driver.h"
#include "nor_file_layout.h"
#include "rest_of.h"

const flash_driver &tested_flash_driver = nor_file_driver;

namespace
{

constexpr unsigned SLOT = 3;

std::string place;

std::string file_of_flash(const char *name)
{
    return place + "/" + flash_file_path(SLOT, 0, name);
}

} // namespace

void make_flash()
{
    char folder[] = "/tmp/driver_kit.XXXXXX";
    if (::mkdtemp(folder) == nullptr)
        throw std::runtime_error("mkdtemp");
    place = folder;
    constexpr flash_geometry GEOMETRY = {.size_bytes = 32 << 10, .sector_bytes = 4 << 10, .page_bytes = 256};
    if (chassis_attach(place, SLOT) != 0 || nor_file_create(SLOT, 0, GEOMETRY) != 0)
        throw std::runtime_error(place + ": no flash could be made there");
}

bool protect_flash_sector(std::uint32_t sector)
{
    std::ofstream(file_of_flash(FLASH_FILE_PROTECTED)) << sector << "\n";
    return true;
}

std::vector<std::uint8_t> flash_contents()
{
    std::ifstream file(file_of_flash(FLASH_FILE_DATA), std::ios::binary);
    return rest_of<std::vector<std::uint8_t>>(file);
}

void remove_flash()
{
    std::filesystem::remove_all(place);
}

bool flash_is_shared_by_processes()
{
    return true;
}
