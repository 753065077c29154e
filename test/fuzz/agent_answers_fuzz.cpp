// What biosctl reads of agents' answers. Whatever an answer says, its records are whole, name what a chassis can
// have, and every text can be printed.
//
//   kind of answer (1 byte), answer
#include <algorithm>

#include "agent_answers.h"
#include "agent_messages.h"
#include "flash_geometry.h"
#include "fuzz_input.h"
#include "harmless_path.h"
#include "pfm.h"

namespace
{

void expect_printable(std::string_view text)
{
    require(std::ranges::all_of(text, [](char c) { return c >= 0x20 && c <= 0x7e; }), "a text can be printed");
}

void expect_slot(unsigned slot)
{
    require(slot >= 1 && slot <= PFM_MODULE_COUNT, "a slot is one of a chassis");
}

void expect_sound(const std::vector<chassis_module> &modules)
{
    unsigned before = 0;
    for (const chassis_module &module : modules) {
        expect_slot(module.slot);
        require(module.slot > before, "each module is there once, in order");
        before = module.slot;
    }
}

void expect_sound(const card_facts_told &card)
{
    require(card.flashes.size() <= FLASH_INSTANCE_COUNT, "no more flashes than a card has");
    for (const card_flash &flash : card.flashes) {
        require(flash.instance < FLASH_INSTANCE_COUNT, "an instance is one of a card");
        if (flash.activity.last) {
            require(flash.activity.last->percent <= 100, "no more than all of it is done");
            expect_printable(flash.activity.last->since);
        }
    }
}

void expect_sound(const told_versions &versions)
{
    require(versions.flashes.size() <= FLASH_INSTANCE_COUNT, "no more flashes than a card has");
    require(versions.started_from.value_or(0) < FLASH_INSTANCE_COUNT, "a card is started from a flash that it has");
    expect_printable(versions.running);
    for (const told_flash_version &flash : versions.flashes) {
        expect_printable(flash.version);
        require(flash.version.empty() || (!flash.marked && !flash.has_writer),
                "a flash that changes has no version");
    }
}

void expect_sound(const std::vector<chassis_module_lock_holder> &locks)
{
    for (const chassis_module_lock_holder &lock : locks)
        expect_printable(lock.since);
}

void expect_sound(const std::vector<told_result> &results)
{
    for (const told_result &result : results) {
        expect_slot(result.module);
        expect_printable(result.time);
    }
}

void expect_sound(const std::vector<delivered_file> &files)
{
    require(files.size() <= AGENT_FILES_MAX, "no more files than a card keeps");
    for (const delivered_file &file : files) {
        require(is_harmless_file_name(file.name.c_str()), "a file has a harmless name");
        require(file.size_bytes >= 1 && file.size_bytes <= AGENT_FILE_BYTES_MAX, "a file has a possible size");
    }
    require(std::ranges::is_sorted(files, {}, &delivered_file::name), "files are in order");
}

template<class Decoded>
void expect_sound(const std::optional<Decoded> &decoded)
{
    if (decoded)
        expect_sound(*decoded);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz_input input(data, size);
    const unsigned kind = input.byte() % 12;
    const auto rest = input.rest();
    const answer_payload payload(rest.data(), rest.size());
    switch (kind) {
    case 0:
        expect_sound(decode_modules(payload));
        break;
    case 1:
        expect_sound(decode_card(payload));
        break;
    case 2:
        expect_sound(decode_locks(payload));
        break;
    case 3:
        expect_sound(decode_results(payload));
        break;
    case 5:
        expect_sound(decode_files(payload));
        break;
    case 6:
        require(decode_transfer(payload).has_value() == (payload.size() == sizeof(agent_transfer_t)),
                "a transfer is its record");
        break;
    case 7:
        require(decode_digest(payload).has_value() == (payload.size() == sizeof(agent_digest_t)),
                "a digest is its record");
        break;
    case 8:
        expect_sound(decode_versions(payload));
        break;
    case 9:
        if (const auto outcome = decode_outcome(payload); outcome)
            expect_printable(outcome->time);
        break;
    case 10:
        require(decode_head(payload).has_value() == (payload.size() == sizeof(agent_event_head_t)),
                "a head is its record");
        break;
    case 11:
        if (const auto faults = decode_log_faults(payload); faults)
            require(faults->size() <= AGENT_LOG_FAULTS_MAX, "no more faults than a log can have");
        break;
    default:
        for (const flash_event &event :
             decode_events({reinterpret_cast<const char *>(payload.data()), payload.size()}))
            expect_printable(event.version);
        break;
    }
    return 0;
}
