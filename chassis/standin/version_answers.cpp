#include "version_answers.h"

#include <cstring>

#include "bios_messages.h"
#include "text_field.h"

namespace
{

constexpr std::uint32_t MODULE_SWID = 19;
constexpr std::size_t TLV_ALIGNMENT = 4;

std::string label_of(std::uint32_t row)
{
    return row == 0 ? "swid-bios" : "swid-bios-" + std::to_string(row + 1);
}

bios_get_lc_version_t first_record(const module_versions &versions)
{
    bios_get_lc_version_t record = {};
    store_text(record.cur, versions.flash.c_str());
    store_text(record.run, versions.running.c_str());
    return record;
}

bios_version_entry entry_of(const module_versions &versions, std::uint32_t row)
{
    bios_version_entry entry = {};
    entry.swid.store(MODULE_SWID);
    store_text(entry.swid_str, label_of(row).c_str());
    store_text(entry.cur, versions.flash.c_str());
    store_text(entry.run, versions.running.c_str());
    return entry;
}

template<class record>
void append(std::vector<std::uint8_t> &answer, const record &added)
{
    const std::size_t place = answer.size();
    answer.resize(place + sizeof added);
    std::memcpy(answer.data() + place, &added, sizeof added);
}

template<class value>
void append_tlv(std::vector<std::uint8_t> &answer, bios_version_tlv type, const value &added)
{
    bios_tlv_header_t header = {};
    header.type.store(type);
    header.length.store(sizeof added);
    append(answer, header);
    append(answer, added);
    answer.resize((answer.size() + TLV_ALIGNMENT - 1) / TLV_ALIGNMENT * TLV_ALIGNMENT);
}

} // namespace

std::vector<std::uint8_t> short_version_answer(const module_versions &versions)
{
    std::vector<std::uint8_t> answer;
    append(answer, first_record(versions));
    return answer;
}

std::vector<std::uint8_t> full_version_answer(const module_versions &versions, std::uint32_t rows)
{
    bios_compat_version_msg_t fixed = {};
    fixed.version = first_record(versions);
    fixed.swid.swid.store(MODULE_SWID);
    store_text(fixed.swid.swid_str, label_of(0).c_str());
    fixed.further_rows.count.store(rows); // one less for the first row, one more for the ignored TLV

    std::vector<std::uint8_t> answer;
    append(answer, fixed);
    for (std::uint32_t row = 1; row < rows; ++row)
        append_tlv(answer, BIOS_TLV_VERSION_ENTRY, entry_of(versions, row));
    append_tlv(answer, BIOS_TLV_IGNORED, std::uint8_t{0});
    return answer;
}

std::vector<std::uint8_t> garbage_version_answer(std::mt19937 &random)
{
    std::vector<std::uint8_t> answer(std::uniform_int_distribution<std::size_t>(0, GARBAGE_MAX_BYTES)(random));
    for (std::uint8_t &byte : answer)
        byte = static_cast<std::uint8_t>(random());
    return answer;
}
