#include <memory>

#include "flash_surroundings.h"
#include "mtd_card.h"

const flash_driver &tested_flash_driver = mtd_card::driver();

namespace
{

std::unique_ptr<mtd_card> card;

} // namespace

void make_flash()
{
    card.reset();
    card = std::make_unique<mtd_card>();
    card->kernel.add({.name = "another"});
    card->kernel.add({.name = "bios"});
    card->name_flash(0, "bios");
}

bool protect_flash_sector(std::uint32_t sector)
{
    card->kernel.mtd(1).locked_sectors.insert(sector);
    return true;
}

std::vector<std::uint8_t> flash_contents()
{
    return card->kernel.contents(1);
}

void remove_flash()
{
    card.reset();
}

bool flash_is_shared_by_processes()
{
    return true;
}
