#include "watch_report.h"

#include <algorithm>
#include <iterator>
#include <limits>

#include "bios_results.h"
#include "progress_bar.h"
#include "result_text.h"
#include "table.h"

namespace
{

enum class wording {
    full,    // whole times, reasons and names
    usual,   // times of today without the date
    compact, // no names
    tight,   // no roles and no seconds either
};
constexpr wording WORDINGS[] = {wording::full, wording::usual, wording::compact, wording::tight};

constexpr const char *NOT_VERIFIED = "not verified: do not reboot";
constexpr const char *NOT_VERIFIED_ADVICE = " the card; program it again: biosctl program SLOT";
constexpr const char *NOTHING_TO_FALL_BACK_ON =
    ": its alternate flash is not verified: it has none to fall back on";
constexpr const char *LOCKS_REMARK = "the module locks could not be read: what is locked is not known";
constexpr const char *RESULTS_REMARK =
    "the last results could not be read: how programmings have ended is not known";

const char *flash_name(unsigned instance)
{
    return instance == 0 ? "primary" : "alternate";
}

// "2026-01-31T23:59:59Z" as "23:59:59" on the day of now, as "2026-01-31" on any other.
std::string time_cell(const std::string &time, const std::string &now, wording words)
{
    constexpr std::size_t DATE_BYTES = 10;
    constexpr std::size_t TIME_OF_DAY_BYTES = 8;
    constexpr std::size_t MINUTES_BYTES = 5;
    if (words == wording::full || time.size() < DATE_BYTES + 1 + TIME_OF_DAY_BYTES)
        return time;
    const bool today = time.compare(0, DATE_BYTES, now, 0, DATE_BYTES) == 0;
    const std::size_t shown = words == wording::tight ? MINUTES_BYTES : TIME_OF_DAY_BYTES;
    return today ? time.substr(DATE_BYTES + 1, shown) : time.substr(0, DATE_BYTES);
}

text_meaning meaning_of(watch_state state)
{
    switch (state) {
    case watch_state::being_programmed:
        return text_meaning::to_do;
    case watch_state::not_verified:
    case watch_state::no_daemon:
    case watch_state::daemon_silent:
    case watch_state::unconfirmed:
        return text_meaning::wrong;
    default:
        return text_meaning::none;
    }
}

std::string state_text(const watch_row &row, wording words)
{
    switch (row.state) {
    case watch_state::not_verified:
        return words >= wording::compact ? watch_state_name(row.state) : NOT_VERIFIED;
    case watch_state::programs_another:
        return (words >= wording::compact ? "programs " : "programs module ") +
               std::to_string(row.programs_module.value_or(0));
    default:
        return watch_state_name(row.state);
    }
}

std::string progress_cell(const watch_row &row, wording words)
{
    if (!row.progress)
        return row.state == watch_state::being_programmed ? "no flash work" : "";
    const watched_progress &progress = *row.progress;
    const bool brief = words >= wording::compact;
    std::string text = std::to_string(progress.percent) + "% " + work_text(progress.phase, progress.percent);
    if (!brief && row.state != watch_state::being_programmed)
        text = "stopped at " + text;
    if (progress.attempt > 0)
        text += (brief ? " #" : ", attempt ") + std::to_string(progress.attempt);
    if (progress.instance != 0)
        text += brief ? " alt" : ", alternate flash";
    // The lock outlasts the work on the flash: the end is still to be reported, or another attempt to begin.
    if (!brief && row.state == watch_state::being_programmed && !progress.goes_on)
        text += ", ended";
    return text;
}

std::string reason_text(std::uint32_t reason)
{
    if (reason == BIOS_ERR_BUSY)
        return "programming";
    return reason == BIOS_LOCK_FOR_PEER ? "on request" : code_text(reason);
}

std::string lock_cell(const watch_snapshot &snapshot, const watch_row &row, wording words)
{
    if (!snapshot.locks_readable)
        return "?";
    if (!row.lock)
        return {};
    if (row.lock->since.empty())
        return "being taken";
    const bool is_a_process = row.lock->locked_for.empty();
    const std::string who = !is_a_process         ? row.lock->locked_for
                            : row.lock->slot == 0 ? "a tool"
                                                  : slot_text(row.lock->slot);
    const std::string since = time_cell(row.lock->since, snapshot.time, words);
    if (words >= wording::compact)
        return who + " " + since;
    return who + (words == wording::full && is_a_process ? ", " + reason_text(row.lock->reason) + "," : "") +
           " since " + since;
}

constexpr const char *ENDED_WITHOUT_RESULT = "ended without a result";

// The name of a result. 0 says no more than that a process has ended.
std::string result_name(const noticed_result &result)
{
    if (result.code != BIOS_OK || result.outcome == AGENT_OUTCOME_VERIFIED)
        return describe_result(result.code).name;
    return result.outcome == AGENT_OUTCOME_NONE ? "ended" : ENDED_WITHOUT_RESULT;
}

bool is_bad(const noticed_result &result)
{
    return find_result(result.code) == nullptr ||
           (result.code == BIOS_OK && result.outcome == AGENT_OUTCOME_WITHOUT_RESULT);
}

table_cell result_cell(const watch_snapshot &snapshot, const watch_row &row, wording words)
{
    if (!snapshot.results_readable)
        return "?";
    if (!row.result)
        return "";
    const bool is_brief = words >= wording::compact;
    std::string name = is_brief && row.result->code != BIOS_OK ? "" : result_name(*row.result) + " ";
    if (is_brief && name.starts_with(ENDED_WITHOUT_RESULT))
        name = "no result ";
    return {code_text(row.result->code) + " " + name + time_cell(row.result->time, snapshot.time, words),
            is_bad(*row.result) ? text_meaning::wrong : text_meaning::none};
}

table table_of(const watch_snapshot &snapshot, const std::vector<watch_row> &rows, wording words)
{
    const bool has_roles = words != wording::tight;
    std::vector<table_column> columns{{"SLOT"}, {"STATE"}, {"PROGRESS"}, {"LOCK"}, {"LAST RESULT"}};
    if (has_roles)
        columns.insert(columns.begin() + 1, {"ROLE"});
    table cards(std::move(columns));
    for (const watch_row &row : rows) {
        std::vector<table_cell> cells{std::to_string(row.slot),
                                      {state_text(row, words), meaning_of(row.state)},
                                      progress_cell(row, words),
                                      lock_cell(snapshot, row, words),
                                      result_cell(snapshot, row, words)};
        if (has_roles)
            cells.insert(cells.begin() + 1, row.role);
        cards.add(std::move(cells));
    }
    return cards;
}

bool fits(const std::vector<styled_text> &lines, std::size_t room)
{
    return std::ranges::all_of(lines, [room](const styled_text &line) { return line.size() <= room; });
}

// A word that is longer than a line goes on in the next one.
std::vector<styled_text> broken(const std::vector<styled_text> &lines, std::size_t room)
{
    std::vector<styled_text> pieces;
    for (const styled_text &line : lines) {
        std::size_t begin = 0;
        do {
            pieces.push_back(line.part(begin, room));
            begin += room;
        } while (room > 0 && begin < line.size());
    }
    return pieces;
}

// In the most words that fit. Where the fewest are too many, columns stand below others: in usual words when there
// are lines for them, else in the fewest.
std::vector<styled_text> table_lines(const watch_snapshot &snapshot, const std::vector<watch_row> &rows,
                                     std::optional<watch_space> space, std::size_t lines_max)
{
    std::vector<styled_text> lines;
    for (const wording words : WORDINGS) {
        lines = table_of(snapshot, rows, words).lines(std::nullopt);
        if (!space || fits(lines, space->columns - 1))
            return lines;
    }
    const std::size_t room = space->columns - 1;
    lines = broken(table_of(snapshot, rows, wording::usual).lines(room), room);
    return lines.size() <= lines_max ? lines : broken(table_of(snapshot, rows, wording::tight).lines(room), room);
}

std::vector<styled_text> fitted(const std::vector<styled_text> &remarks, std::optional<watch_space> space)
{
    constexpr std::size_t REST_COLUMN = 2;
    if (!space)
        return remarks;
    std::vector<styled_text> lines;
    for (const styled_text &remark : remarks)
        std::ranges::copy(wrapped(remark, space->columns - 1, REST_COLUMN), std::back_inserter(lines));
    return lines;
}

std::vector<styled_text> remarks_of(const watch_snapshot &snapshot)
{
    std::vector<styled_text> remarks;
    if (std::any_of(snapshot.rows.begin(), snapshot.rows.end(),
                    [](const watch_row &row) { return row.state == watch_state::not_verified; }))
        remarks.push_back(styled_text(NOT_VERIFIED, text_meaning::wrong) + NOT_VERIFIED_ADVICE);
    for (const watch_row &row : snapshot.rows) {
        if (!row.marked_flashes.empty() && !row.needs_marked)
            remarks.emplace_back(slot_text(row.slot) + NOTHING_TO_FALL_BACK_ON);
    }
    if (!snapshot.locks_readable)
        remarks.emplace_back(LOCKS_REMARK);
    if (!snapshot.results_readable)
        remarks.emplace_back(RESULTS_REMARK);
    return remarks;
}

bool is_dull(const watch_row &row)
{
    return row.state == watch_state::idle || row.state == watch_state::no_daemon;
}

// Takes rows out until there are no more than the limit: dull ones first, the last ones first.
std::size_t leave_out(std::vector<watch_row> &rows, std::size_t limit)
{
    const std::size_t before = rows.size();
    for (std::size_t place = rows.size(); place > 0 && rows.size() > limit; --place) {
        if (is_dull(rows[place - 1]))
            rows.erase(rows.begin() + static_cast<std::ptrdiff_t>(place - 1));
    }
    if (rows.size() > limit)
        rows.resize(limit);
    return before - rows.size();
}

nlohmann::ordered_json progress_json(const watched_progress &progress)
{
    return {{"flash", flash_name(progress.instance)},
            {"phase", phase_text(progress.phase)},
            {"percent", progress.percent},
            {"attempt", progress.attempt},
            {"since", progress.since},
            {"goes_on", progress.goes_on}};
}

nlohmann::ordered_json lock_json(const watched_lock &lock)
{
    nlohmann::ordered_json object = {
        {"slot", lock.slot}, {"pid", lock.pid}, {"reason", code_text(lock.reason)}, {"since", lock.since}};
    if (!lock.locked_for.empty())
        object["locked_for"] = lock.locked_for;
    return object;
}

nlohmann::ordered_json result_json(const noticed_result &result)
{
    return {{"result", code_text(result.code)},
            {"name", result_name(result)},
            {"time", result.time},
            {"reported_by_slot", result.reported_by_slot}};
}

nlohmann::ordered_json row_json(const watch_row &row)
{
    nlohmann::ordered_json marked = nlohmann::ordered_json::array();
    for (const unsigned instance : row.marked_flashes)
        marked.push_back(flash_name(instance));
    nlohmann::ordered_json json{{"slot", row.slot},
                                {"role", row.role},
                                {"state", watch_state_name(row.state)},
                                {"serves", row.serves},
                                {"programs_module", nullptr},
                                {"marked_flashes", marked},
                                {"progress", nullptr},
                                {"lock", nullptr},
                                {"last_result", nullptr}};
    if (row.programs_module)
        json["programs_module"] = *row.programs_module;
    if (row.progress)
        json["progress"] = progress_json(*row.progress);
    if (row.lock)
        json["lock"] = lock_json(*row.lock);
    if (row.result)
        json["last_result"] = result_json(*row.result);
    return json;
}

} // namespace

std::vector<styled_text> watch_lines(const watch_snapshot &snapshot, std::optional<watch_space> space)
{
    constexpr std::size_t OTHER_LINES = 3; // heading, the number of cards left out, the cursor's line
    if (space && space->columns == 0)
        space->columns = 1;
    const std::vector<styled_text> remarks = fitted(remarks_of(snapshot), space);
    std::vector<watch_row> rows = snapshot.rows;
    std::size_t left_out = 0;
    std::size_t room = std::numeric_limits<std::size_t>::max();
    if (space) {
        const std::size_t taken = OTHER_LINES + remarks.size();
        room = space->lines > taken ? space->lines - taken : 1;
        left_out = leave_out(rows, std::max<std::size_t>(room, 2) - 1); // the table has a head
    }
    std::vector<styled_text> lines{snapshot.time};
    std::vector<styled_text> table = table_lines(snapshot, rows, space, room);
    while (table.size() > room && rows.size() > 1) {
        left_out += leave_out(rows, rows.size() - 1);
        table = table_lines(snapshot, rows, space, room);
    }
    lines.insert(lines.end(), table.begin(), table.end());
    if (left_out > 0)
        lines.emplace_back("and " + std::to_string(left_out) + " more cards");
    lines.insert(lines.end(), remarks.begin(), remarks.end());
    if (space) {
        lines = broken(lines, space->columns - 1);
        lines.resize(std::min<std::size_t>(lines.size(), std::max(space->lines, 2U) - 1));
    }
    return lines;
}

nlohmann::ordered_json watch_json(const watch_snapshot &snapshot)
{
    nlohmann::ordered_json cards = nlohmann::ordered_json::array();
    for (const watch_row &row : snapshot.rows)
        cards.push_back(row_json(row));
    return {{"command", "watch"},
            {"time", snapshot.time},
            {"locks_readable", snapshot.locks_readable},
            {"cards", cards}};
}
