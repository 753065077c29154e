#include "card_families.h"

#include <algorithm>

const card_family *find_card_family(std::string_view name)
{
    const auto *found = std::find_if(CARD_FAMILIES.begin(), CARD_FAMILIES.end(),
                                     [&](const card_family &family) { return family.name == name; });
    return found == CARD_FAMILIES.end() ? nullptr : found;
}

std::string image_file_of(const card_family &family)
{
    return "bios-" + std::string(family.name) + ".bin.gz";
}
