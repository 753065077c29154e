#include "agent_answers.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "agent_messages.h"
#include "flash_geometry.h"
#include "harmless_path.h"
#include "hex_text.h"
#include "pfm.h"
#include "printable_text.h"
#include "text_field.h"

namespace
{

// Takes records from the beginning of a payload.
class record_reader
{
public:
    explicit record_reader(std::span<const std::uint8_t> payload) : rest_(payload) {}

    template<class Record>
    bool take(Record &record)
    {
        if (rest_.size() < sizeof record)
            return false;
        std::memcpy(&record, rest_.data(), sizeof record);
        rest_ = rest_.subspan(sizeof record);
        return true;
    }
    bool at_end() const { return rest_.empty(); }

private:
    std::span<const std::uint8_t> rest_;
};

// The record that is the whole payload; none when the payload is anything else.
template<class Record>
std::optional<Record> only_record(answer_payload payload)
{
    record_reader records(payload);
    Record record{};
    return records.take(record) && records.at_end() ? std::optional(record) : std::nullopt;
}

// Texts come from another card, and end on an operator's terminal.
template<std::size_t SIZE>
std::string printable(const char (&field)[SIZE])
{
    return printable_text(field_text(field).text);
}

bool is_slot(std::uint32_t number)
{
    return number >= 1 && number <= PFM_MODULE_COUNT;
}

// A card names its flashes in their order, and each once.
template<class Flash>
bool is_next_flash(std::uint32_t instance, const std::vector<Flash> &before)
{
    return instance < FLASH_INSTANCE_COUNT && (before.empty() || instance > before.back().instance);
}

card_flash flash_of(const agent_flash_t &told)
{
    const std::uint32_t state = told.state.load();
    card_flash flash{.instance = told.instance.load(),
                     .size_bytes = told.size_bytes.load(),
                     .sector_bytes = told.sector_bytes.load(),
                     .erases = told.erases.load(),
                     .log = {told.log_file.load(), told.log_bytes.load()}};
    flash.activity.marked = (state & AGENT_FLASH_MARKED) != 0;
    flash.activity.has_writer = (state & AGENT_FLASH_HAS_WRITER) != 0;
    flash.is_spare = (state & AGENT_FLASH_SPARE) != 0;
    const std::uint32_t phase = told.phase.load();
    if ((state & AGENT_FLASH_HAS_PROGRESS) != 0 && phase >= BIOS_PHASE_ERASE && phase <= BIOS_PHASE_VERIFY)
        flash.activity.last = flash_progress_line{static_cast<bios_programming_phase>(phase),
                                                  std::min<std::uint32_t>(told.percent.load(), 100),
                                                  told.attempt.load(), told.pid.load(), printable(told.since)};
    return flash;
}

} // namespace

std::optional<std::vector<chassis_module>> decode_modules(answer_payload payload)
{
    record_reader records(payload);
    agent_chassis_t head{};
    if (!records.take(head))
        return std::nullopt;
    std::vector<chassis_module> modules;
    for (agent_module_t told{}; records.take(told);) {
        if (!is_slot(told.slot.load()) || (!modules.empty() && told.slot.load() <= modules.back().slot))
            return std::nullopt;
        modules.push_back({told.slot.load(), told.kind.load(), told.card_id.load(), told.sup_state.load()});
    }
    const bool is_whole = records.at_end() && modules.size() == head.count.load();
    return is_whole ? std::optional(modules) : std::nullopt;
}

std::optional<card_facts_told> decode_card(answer_payload payload)
{
    record_reader records(payload);
    agent_card_t head{};
    if (!records.take(head))
        return std::nullopt;
    card_facts_told card{.serves = head.serves.load() != 0,
                         .is_silent = head.serves.load() == 2,
                         .programming_pid = head.programming_pid.load(),
                         .serves_since = printable(head.serves_since)};
    for (agent_flash_t told{}; records.take(told);) {
        if (!is_next_flash(told.instance.load(), card.flashes))
            return std::nullopt;
        card.flashes.push_back(flash_of(told));
    }
    const bool is_whole = records.at_end() && card.flashes.size() == head.flash_count.load();
    return is_whole ? std::optional(card) : std::nullopt;
}

std::optional<told_versions> decode_versions(answer_payload payload)
{
    record_reader records(payload);
    agent_versions_t head{};
    if (!records.take(head))
        return std::nullopt;
    told_versions versions{.serves = head.serves.load() != 0, .running = printable(head.running)};
    if (const std::uint32_t instance = head.started_from.load(); instance < FLASH_INSTANCE_COUNT)
        versions.started_from = instance;
    for (agent_flash_version_t told{}; records.take(told);) {
        if (!is_next_flash(told.instance.load(), versions.flashes))
            return std::nullopt;
        const std::uint32_t state = told.state.load();
        told_flash_version flash{.instance = told.instance.load(),
                                 .marked = (state & AGENT_FLASH_MARKED) != 0,
                                 .has_writer = (state & AGENT_FLASH_HAS_WRITER) != 0,
                                 .is_spare = (state & AGENT_FLASH_SPARE) != 0};
        if (!flash.marked && !flash.has_writer)
            flash.version = printable(told.version);
        versions.flashes.push_back(std::move(flash));
    }
    const bool is_whole = records.at_end() && versions.flashes.size() == head.flash_count.load();
    return is_whole ? std::optional(versions) : std::nullopt;
}

std::optional<std::vector<chassis_module_lock_holder>> decode_locks(answer_payload payload)
{
    record_reader records(payload);
    std::vector<chassis_module_lock_holder> locks;
    for (agent_held_lock_t told{}; records.take(told);)
        locks.push_back({static_cast<std::uint16_t>(told.lock.node_id.load()), told.lock.slot.load(),
                         told.lock.pid.load(), told.lock.owner.load(), told.lock.reason.load(),
                         printable(told.lock.since), printable(told.user), printable(told.host),
                         printable(told.until)});
    return records.at_end() ? std::optional(locks) : std::nullopt;
}

std::optional<std::vector<told_result>> decode_results(answer_payload payload)
{
    record_reader records(payload);
    std::vector<told_result> results;
    for (agent_result_t told{}; records.take(told);) {
        if (!is_slot(told.module.load()))
            return std::nullopt;
        results.push_back(
            {told.module.load(), told.result.load(), told.reported_by_slot.load(), printable(told.time)});
    }
    return records.at_end() ? std::optional(results) : std::nullopt;
}

std::optional<told_outcome> decode_outcome(answer_payload payload)
{
    const auto record = only_record<agent_outcome_t>(payload);
    if (!record || record->outcome.load() > AGENT_OUTCOME_FAILED)
        return std::nullopt;
    return told_outcome{static_cast<agent_outcome>(record->outcome.load()), printable(record->result.time),
                        printable(record->ended)};
}

std::optional<told_head> decode_head(answer_payload payload)
{
    const auto record = only_record<agent_event_head_t>(payload);
    if (!record)
        return std::nullopt;
    return told_head{record->sequence.load(), hex_text(std::to_array(record->chain))};
}

std::optional<std::vector<told_log_fault>> decode_log_faults(answer_payload payload)
{
    record_reader records(payload);
    std::vector<told_log_fault> faults;
    for (agent_log_fault_t told{}; records.take(told);) {
        const std::uint32_t fault = told.fault.load();
        if (fault < AGENT_LOG_NO_EVENT || fault > AGENT_LOG_LOST_FULL || told.count.load() == 0 ||
            faults.size() == AGENT_LOG_FAULTS_MAX)
            return std::nullopt;
        faults.push_back({static_cast<agent_log_fault>(fault), told.in_older.load() != 0, told.count.load(),
                          told.line.load(), told.sequence.load()});
    }
    return records.at_end() ? std::optional(faults) : std::nullopt;
}

std::optional<told_image> decode_image(answer_payload payload)
{
    const auto record = only_record<agent_image_t>(payload);
    if (!record)
        return std::nullopt;
    return told_image{.size_bytes = record->size_bytes.load(),
                      .digest = std::to_array(record->sha256),
                      .version = printable(record->version),
                      .missing_bytes = record->missing_bytes.load(),
                      .record = *record};
}

std::optional<told_flash_digest> decode_flash_digest(answer_payload payload)
{
    const auto record = only_record<agent_flash_digest_t>(payload);
    if (!record)
        return std::nullopt;
    return told_flash_digest{.digest = std::to_array(record->sha256),
                             .rest_is_erased = record->rest_is_erased.load() != 0,
                             .marked = (record->state.load() & AGENT_FLASH_MARKED) != 0,
                             .has_writer = (record->state.load() & AGENT_FLASH_HAS_WRITER) != 0};
}

std::optional<std::vector<delivered_file>> decode_files(answer_payload payload)
{
    record_reader records(payload);
    std::vector<delivered_file> files;
    for (agent_file_t told{}; records.take(told);) {
        delivered_file file{.name = field_text(told.name).text, .size_bytes = told.size_bytes.load()};
        const bool is_next = files.empty() || file.name > files.back().name;
        const bool is_possible = is_harmless_file_name(file.name.c_str()) && file.size_bytes >= 1 &&
                                 file.size_bytes <= AGENT_FILE_BYTES_MAX;
        if (!is_next || !is_possible || files.size() == AGENT_FILES_MAX)
            return std::nullopt;
        file.sha256 = std::to_array(told.sha256);
        files.push_back(std::move(file));
    }
    return records.at_end() ? std::optional(files) : std::nullopt;
}

std::optional<begun_transfer> decode_transfer(answer_payload payload)
{
    const auto told = only_record<agent_transfer_t>(payload);
    if (!told)
        return std::nullopt;
    return begun_transfer{told->transfer.load(), told->size_bytes.load()};
}

std::optional<sha256_digest> decode_digest(answer_payload payload)
{
    const auto told = only_record<agent_digest_t>(payload);
    if (!told)
        return std::nullopt;
    return std::to_array(told->sha256);
}

std::vector<flash_event> decode_events(std::string_view lines)
{
    std::vector<flash_event> events;
    for (std::size_t end = lines.find('\n'); end != std::string_view::npos; end = lines.find('\n')) {
        const std::string_view line = lines.substr(0, end);
        auto event = std::ranges::all_of(line, is_printable) ? flash_event_parse(line) : std::nullopt;
        if (event)
            events.push_back(std::move(*event));
        lines.remove_prefix(end + 1);
    }
    return events;
}
