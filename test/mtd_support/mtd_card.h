// A card of slot 3 in a private folder, whose flashes are MTDs that are played.
#pragma once

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "chassis_dir.h"
#include "flash_folder.h"
#include "memory_mtd.h"
#include "mtd_driver.h"
#include "temporary_folder.h"

class mtd_card
{
public:
    static constexpr unsigned SLOT = 3;

    mtd_card()
    {
        if (chassis_attach(folder_.path(), SLOT) != 0)
            throw std::runtime_error(folder_.path());
        current_ = this;
    }

    // Says which MTD a flash of the card is.
    void name_flash(unsigned instance, const std::string &name) const
    {
        const std::string names = file(chassis_slot_path(SLOT, MTD_NAMES_FOLDER));
        std::filesystem::create_directories(names);
        std::ofstream(names + "/" + MTD_NAME_FILES[instance]) << name << "\n";
    }

    // The driver, with the system calls of the card that was made last.
    static const flash_driver &driver()
    {
        static const flash_driver made = [] {
            flash_driver driver = mtd_driver;
            driver.open = [](unsigned instance, flash_access access) {
                return mtd_open(current_->kernel.calls(), instance, access);
            };
            return driver;
        }();
        return made;
    }

    std::string file(const std::string &name) const { return folder_.path(name); }
    std::string flash_file(const char *name, unsigned instance = 0) const
    {
        return file(flash_file_path(SLOT, instance, name));
    }

    memory_mtds kernel;

private:
    const temporary_folder folder_{"mtd_card"};
    static inline mtd_card *current_ = nullptr;
};
