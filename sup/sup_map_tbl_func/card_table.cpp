#include "card_table.h"

#include <cstdlib>
#include <new>

#include "bios_log.h"
#include "card_identification.h"

namespace
{

std::size_t table_bytes(std::uint32_t count)
{
    return sizeof(bios_card_table) + count * sizeof(bios_flash_entry);
}

std::uint32_t count_rows(std::uint32_t family)
{
    std::uint32_t count = 0;
    for (std::uint32_t i = 0; i < max_bios_id_entries; ++i) {
        const bios_flash_entry &row = bios_flash_entry_tbl[i];
        BIOS_LOG("Index %d entries....\n", static_cast<int>(i));
        BIOS_LOG("sw_id_str = %d\n", row.sw_card_id); // the label names the string, the number is what is wanted
        BIOS_LOG("sw_src_id = %d\n", static_cast<int>(row.sw_src_id));
        BIOS_LOG("pathname = %s\n", row.src_path);
        if (row.sw_card_id == family)
            ++count;
    }
    return count;
}

void copy_rows(std::uint32_t family, bios_card_table &table)
{
    std::uint32_t position = 0;
    for (std::uint32_t i = 0; i < max_bios_id_entries; ++i) {
        const bios_flash_entry &row = bios_flash_entry_tbl[i];
        BIOS_LOG("Table entry is %d index %d\n", row.sw_card_id, static_cast<int>(i));
        if (row.sw_card_id != family)
            continue;
        if (position >= table.count) {
            BIOS_LOG("ERROR: %d cannot be more than %d\n", static_cast<int>(position),
                     static_cast<int>(table.count));
            return;
        }
        table.entries()[position] = row;
        BIOS_LOG("Copying %d into the card_tbl at %d\n", static_cast<int>(i), static_cast<int>(position));
        ++position;
    }
}

} // namespace

bios_card_table *bios_get_card_id_ent(std::uint32_t card_id, [[maybe_unused]] std::uint32_t reserved)
{
    card_id &= 0xffff;
    BIOS_LOG("Card id is = %d %d\n", static_cast<int>(card_id), static_cast<int>(max_bios_id_entries));
    if (max_bios_id_entries == 0)
        return nullptr;

    const std::uint32_t family = get_sw_card_family(card_id);
    BIOS_LOG("Card tbl family is %d \n", static_cast<int>(family));
    if (family == NO_CARD_FAMILY)
        return nullptr;

    const std::uint32_t count = count_rows(family);
    BIOS_LOG("Card id is %d matching entries are %d\n", static_cast<int>(family), static_cast<int>(count));
    if (count == 0)
        return nullptr;

    void *block = std::malloc(table_bytes(count));
    if (block == nullptr)
        return nullptr;
    BIOS_LOG("Total mem size is = %d bytes\n", static_cast<int>(table_bytes(count)));
    auto *table = new (block) bios_card_table{count};
    copy_rows(family, *table);
    BIOS_LOG("Total mem size is = %d bytes\n", static_cast<int>(table_bytes(table->count)));
    return table;
}
