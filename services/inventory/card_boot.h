// When this card has booted, as its file CHASSIS_BOOTED says; without that file, as the kernel says.
#pragma once

#include <string>

struct card_boot {
    std::string id;   // no other boot of the card has it
    std::string time; // UTC, in the form of utc_now_microseconds()
};
card_boot card_boot_now();
