#include "version_records.h"

#include <algorithm>
#include <cstring>

#include "bios_opcodes.h"
#include "printable_text.h"

namespace
{

constexpr std::uint32_t ALL_ONES = 0xffffffff;

// REQUIRES: the payload has the record.
template<class Record>
Record record_at(std::span<const std::uint8_t> payload, std::size_t offset)
{
    Record record;
    std::memcpy(&record, payload.data() + offset, sizeof record);
    return record;
}

template<std::size_t SIZE>
std::string text_of(const char (&field)[SIZE])
{
    const std::string text = printable_text({field, ::strnlen(field, SIZE)});
    const std::size_t begin = text.find_first_not_of(' ');
    return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(' ') - begin + 1);
}

} // namespace

daemon_request encode_module_version_request(unsigned module)
{
    return daemon_request_of(MTS_OPC_BIOS_GET_MOD_BIOS_VERSION, bios_mod_version_req_t{be32::of(module)});
}

module_versions_answer decode_module_versions(std::span<const std::uint8_t> payload, unsigned module)
{
    if (payload.size() < sizeof(bios_new_vers_message))
        return {};
    const auto header = record_at<bios_new_vers_message>(payload, 0);
    module_versions_answer answer{.described_module = header.module_num.load()};
    if (answer.described_module != module) {
        answer.kind = module_answer_kind::other_module;
        return answer;
    }
    // In an answer with entries the first word is undefined and may be all ones too.
    if (payload.size() == sizeof(bios_version_failure_t) && header.reserved.load() == ALL_ONES) {
        answer.kind = module_answer_kind::unreachable;
        return answer;
    }
    const std::uint32_t count = header.num_entries.load();
    if (count > VERSION_ENTRIES_MAX ||
        payload.size() < sizeof(bios_new_vers_message) + count * sizeof(bios_version_entry))
        return answer;
    answer.kind = module_answer_kind::versions;
    for (std::uint32_t k = 0; k < count; ++k) {
        const auto entry =
            record_at<bios_version_entry>(payload, sizeof(bios_new_vers_message) + k * sizeof(bios_version_entry));
        flash_versions versions{text_of(entry.swid_str), text_of(entry.cur), text_of(entry.run)};
        if (versions.label.empty() && versions.flash.empty() && versions.running.empty())
            ++answer.empty_entries;
        else
            answer.entries.push_back(std::move(versions));
    }
    return answer;
}
