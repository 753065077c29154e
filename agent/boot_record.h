// What the card was started from: the flash that it booted from and the version that this held then. The agent
// writes it down at its first start after the card has booted, and reads it until the next boot:
// slots/SLOT/started_from, lines "key value":
//
//   boot ID            of card_boot.h
//   flash INSTANCE     0 primary, 1 alternate
//   version TEXT       empty: not known
#pragma once

#include <cstdint>
#include <string>

struct boot_record {
    std::string boot;
    std::uint32_t flash = 0;
    std::string version;

    bool operator==(const boot_record &) const = default;
};

std::string boot_record_format(const boot_record &record);

// False for anything that format does not give.
bool boot_record_parse(const std::string &text, boot_record &record_out);

// Writes down what the card was started from, unless that is done. The version is not known when the flash has
// changed since the boot, or changes.
void note_boot();

// What is written down of the present boot; false when nothing is.
bool load_boot_record(boot_record &record_out);

// Whether the card's next start may need a flash. A card starts from its primary one, or the one that its register
// selects; the alternate one is needed as well while the card runs from it, or nobody knows from which one it does,
// and no programming of the primary one was verified since.
bool next_start_may_need(unsigned instance);
