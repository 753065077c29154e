// The description of a chassis: what "chassis init" makes a chassis from.
//
//     [chassis]
//     name = "lab"
//     isolation = "auto"              # or mount, user, plain
//     wait_limit_s = 5                # for a card's request that is not answered; absent: as long as it allows
//
//     [[card]]
//     slot = 5                        # 1..232
//     name = "supervisor A"
//     card_id = 90                    # hardware card id, 1..65535; or
//     family = "x86n"                 # a name of "chassis families" in its place
//     kind = "supervisor"             # or "linecard", or the number
//     role = "active"                 # or standby, none
//     hw_change_bit = 0               # not with a family that tells it
//     image_tree = "images"           # folder with vesk/bin/*.gz; becomes the card's /vesk
//     flash_mib = 8                   # or flash_kib; both flashes
//     sector_kib = 64
//     flash_image = "old.bin"         # first contents of the primary flash, else erased
//     alternate_image = "old.bin"
//     boot_loader = "loader.sro"      # first contents of the boot-loader partition, else empty
//     ks_image = "ks.sro"             # becomes the card's /etc/srg-ks.sro
//     bootflash_mib = 64              # /bootflash of a limited size; not with isolation plain
//     serves = true                   # false: the card is there but runs no daemon
//     answers = "daemon"              # or short, full, garbage, silent: a stand-in in place of the daemon
//     answer_rows = 2                 # of the stand-in that answers in full
//     answer_seed = 1                 # of the stand-in that answers with garbage; absent: another at each start
//
// Required are slot, kind, and card_id or family. Relative file names start at the description's own folder.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "answer_form.h"
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
    std::string flash_image;         // empty: erased
    std::string alternate_image;     // empty: erased
    std::string boot_loader;         // empty: none
    std::string ks_image;            // empty: none
    std::uint32_t bootflash_mib = 0; // 0: a folder of the card's root
    bool serves = true;
    answer_form answers = answer_form::daemon;
    std::optional<std::uint32_t> answer_rows;
    std::optional<std::uint32_t> answer_seed;
};

struct chassis_description {
    std::string name;
    isolation way = isolation::automatic;
    std::optional<std::uint32_t> wait_limit_s; // none: a card's requests wait as long as it allows
    std::vector<card_description> cards;
};

// Reads and checks a description. Throws launcher_error with file, line and what is wrong.
chassis_description load_description(const std::string &path);
