// A card's rows as bios_get_card_id_ent returns them, made of rows that the test chooses.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <initializer_list>
#include <new>

#include "bios_flash_entry.h"
#include "free_block.h"

class entry_list
{
public:
    entry_list(std::initializer_list<bios_flash_entry> rows) : table_(made(rows)) {}

    const bios_card_table *table() const { return table_.get(); }
    bios_card_table *release() { return table_.release(); } // the block is freed by who takes it

private:
    static bios_card_table *made(std::initializer_list<bios_flash_entry> rows)
    {
        void *block = std::malloc(sizeof(bios_card_table) + rows.size() * sizeof(bios_flash_entry));
        if (block == nullptr)
            throw std::bad_alloc();
        auto *table = new (block) bios_card_table{static_cast<std::uint32_t>(rows.size())};
        std::copy(rows.begin(), rows.end(), table->entries());
        return table;
    }

    owned_block<bios_card_table> table_;
};
