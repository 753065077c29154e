// The description of a chassis: what "chassis init" makes a chassis from.
//
//     [chassis]
//     name = "lab"
//     isolation = "auto"              # or mount, user, plain
//
//     [[card]]
//     slot = 5                        # 1..232
//     name = "supervisor A"
//     card_id = 90                    # hardware card id, 1..65535
//     kind = "supervisor"             # or "linecard", or the number
//     role = "active"                 # or standby, none
//     hw_change_bit = 0
//     image_tree = "images"           # folder with vesk/bin/*.gz; becomes the card's /vesk
//     flash_mib = 8                   # or flash_kib; both flashes
//     sector_kib = 64
//     flash_image = "old.bin"         # first contents of the primary flash, else erased
//     alternate_image = "old.bin"
//     bootflash_mib = 64              # /bootflash of a limited size; not with isolation plain
//     serves = true                   # false: the card is there but runs no daemon
//
// Required are slot, card_id and kind. Relative file names start at the description's own folder.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "isolation.h"

struct card_description {
    unsigned slot = 0;
    std::string name;
    std::uint32_t card_id = 0;
    std::uint32_t kind = 0;
    std::uint32_t sup_state = 0; // 1 active, 2 standby, 0 none
    std::uint32_t hw_change_bit = 0;
    std::string image_tree; // empty: none
    std::uint32_t flash_bytes = 0;
    std::uint32_t sector_bytes = 0;
    std::string flash_image;     // empty: erased
    std::string alternate_image; // empty: erased
    std::uint32_t bootflash_mib = 0; // 0: a folder of the card's root
    bool serves = true;
};

struct chassis_description {
    std::string name;
    isolation way = isolation::automatic;
    std::vector<card_description> cards;
};

// Reads and checks a description. Throws launcher_error with file, line and what is wrong.
chassis_description load_description(const std::string &path);
