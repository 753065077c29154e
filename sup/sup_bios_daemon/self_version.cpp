#include "self_version.h"

#include <cstdlib>
#include <cstring>

#include "bios_log.h"
#include "bios_messages.h"
#include "bios_results.h"
#include "cmi.h"
#include "free_block.h"
#include "running_version.h"
#include "text_field.h"

namespace
{

constexpr std::uint32_t OWN_BIOS_ID = 19;
constexpr std::uint32_t LINE_CARD_SWID = 19; // whatever the row says
constexpr std::uint32_t TYPE_FLASH = 0;
constexpr std::uint32_t TYPE_RUNNING = 1;

// TLVs are placed 4 bytes apart and not behind each other: with three and more rows each overwrites all but the
// first word of the one before. Receivers are used to it.
constexpr std::size_t TLV_STRIDE = 4;

bios_version_entry version_entry(std::int32_t handle, std::uint32_t row_index, const bios_flash_entry &row,
                                 std::uint32_t swid)
{
    bios_version_entry entry = {};
    entry.swid.store(swid);
    store_text(entry.swid_str, row.sw_id_str);
    (void)mod_get_bios_version(handle, row_index, TYPE_FLASH, entry.cur);
    const std::int32_t stat = mod_get_bios_version(handle, row_index, TYPE_RUNNING, entry.run);
    entry.stat.store(static_cast<std::uint32_t>(stat));
    return entry;
}

void put_first_row(std::uint8_t *message, const bios_version_entry &entry, std::uint32_t further_rows)
{
    bios_compat_version_msg_t first = {};
    first.version.stat = entry.stat;
    std::memcpy(first.version.cur, entry.cur, sizeof entry.cur);
    std::memcpy(first.version.run, entry.run, sizeof entry.run);
    first.swid.swid = entry.swid;
    std::memcpy(first.swid.swid_str, entry.swid_str, sizeof entry.swid_str);
    first.further_rows.count.store(further_rows);
    std::memcpy(message, &first, sizeof first);
}

void put_further_row(std::uint8_t *message, std::uint32_t k, const bios_version_entry &entry)
{
    bios_tlv_header_t header = {};
    header.type.store(BIOS_TLV_VERSION_ENTRY);
    header.length.store(sizeof entry);
    std::uint8_t *place = message + offsetof(bios_compat_version_msg_t, further_rows) + TLV_STRIDE * k;
    std::memcpy(place, &header, sizeof header);
    std::memcpy(place + sizeof header, &entry, sizeof entry);
}

} // namespace

std::int32_t bios_get_new_self_version_info(std::int32_t handle, std::uint32_t module_num, mts_message_t *msg,
                                            const void *, const bios_card_table *table)
{
    const std::uint32_t rows = table->count;
    const std::size_t length = sizeof(bios_new_vers_message) + rows * sizeof(bios_version_entry);
    const owned_block<bios_new_vers_message> message(static_cast<bios_new_vers_message *>(std::calloc(1, length)));
    if (message == nullptr) {
        BIOS_LOG("ERROR!!! Couldn't allocate: bios_new_vers_message\n");
        return -1;
    }
    message->module_num.store(module_num);
    message->num_entries.store(rows);
    message->bios_id.store(OWN_BIOS_ID);
    BIOS_LOG("Length of the message is = %d BIOS ID = %d\n", static_cast<int>(length),
             static_cast<int>(OWN_BIOS_ID));
    BIOS_LOG("module_num %d num_entries %d \n", static_cast<int>(module_num), static_cast<int>(rows));

    auto *entries = reinterpret_cast<bios_version_entry *>(message.get() + 1);
    for (std::uint32_t i = 0; i < rows; ++i) {
        BIOS_LOG(" instance # %d\n", static_cast<int>(i));
        const bios_flash_entry &row = table->entries()[i];
        entries[i] = version_entry(handle, i, row, row.flash_type);
        BIOS_LOG("The versions cur=%s run=%s stat=%d\n", field_text(entries[i].cur).text,
                 field_text(entries[i].run).text, static_cast<int>(entries[i].stat.load()));
    }
    (void)cmi_response(message.get(), static_cast<std::uint32_t>(length), handle, msg, 0);
    return 0;
}

std::int32_t bios_get_self_version_info(std::int32_t handle, mts_message_t *msg, const void *,
                                        const bios_card_table *table)
{
    const std::uint32_t rows = table->count;
    const std::uint32_t further_rows = rows == 0 ? 0 : rows - 1;
    const std::size_t length = sizeof(bios_compat_version_msg_t) * (rows == 0 ? 1 : rows);
    BIOS_LOG(
        "Size of bios_get_lc_version_t = %d size of bios_get_lc_version_swid_t = %d Size of  tlv_aligned_array_t "
        "= %d sizeof bios_compat_version_msg_t %d , total m_len = %d ",
        static_cast<int>(sizeof(bios_get_lc_version_t)), static_cast<int>(sizeof(bios_get_lc_version_swid_t)),
        static_cast<int>(sizeof(tlv_aligned_array_t)), static_cast<int>(sizeof(bios_compat_version_msg_t)),
        static_cast<int>(length));
    const owned_block<std::uint8_t> message(static_cast<std::uint8_t *>(std::calloc(1, length)));
    if (message == nullptr)
        return -bios_signed(BIOS_ERR_NO_MEMORY);
    BIOS_LOG("Length of the message is = %d\n", static_cast<int>(length));

    const bios_version_entry first = version_entry(handle, 0, table->entries()[0], LINE_CARD_SWID);
    BIOS_LOG("The versions cur=%s run=%s stat=%d extra_tlvs= %d\n", field_text(first.cur).text,
             field_text(first.run).text, static_cast<int>(first.stat.load()), static_cast<int>(further_rows));
    put_first_row(message.get(), first, further_rows);

    for (std::uint32_t k = 1; k <= further_rows; ++k) {
        const bios_version_entry entry = version_entry(handle, k, table->entries()[k], LINE_CARD_SWID);
        std::uint32_t stat_as_sent = 0;
        std::memcpy(&stat_as_sent, &entry.stat, sizeof stat_as_sent);
        BIOS_LOG("The versions extra_tlvs = %d cur=%s run=%s stat=%d\n", static_cast<int>(further_rows),
                 field_text(entry.cur).text, field_text(entry.run).text, static_cast<int>(stat_as_sent));
        put_further_row(message.get(), k, entry);
    }
    (void)cmi_response(message.get(), static_cast<std::uint32_t>(length), handle, msg, 0);
    return 0;
}
