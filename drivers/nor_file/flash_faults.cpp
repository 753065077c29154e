// The rules of the file `faults`: reading, counting down, writing back.
#include "flash_faults.h"

#include <charconv>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

#include "chassis_dir.h"
#include "flash_folder.h"
#include "nor_file_layout.h"
#include "seeded_chance.h"

namespace
{

constexpr std::string_view FAULT_NAMES[] = {"none", "fail", "lie", "part", "flip", "stop", "torn", "after"};
constexpr std::string_view OPERATION_NAMES[] = {"erase", "program", "read", "marker"};
constexpr std::string_view NOT_UNDERSTOOD = "# not understood: ";
constexpr std::string_view RANDOM = "random";
constexpr std::string_view ALWAYS = "always";
constexpr std::string_view HOLD = "hold";

constexpr double LEAST_PERCENT = 0.001;
constexpr double MOST_PERCENT = 100;

struct fault_rule {
    flash_fault fault = flash_fault::none;
    flash_operation operation = flash_operation::erase;
    bool always = false;
    bool hold = false;
    std::uint32_t after = 1; // operations until it happens, 1 the next
    std::uint32_t count = 1; // operations in a row to which it happens
    std::string percent;     // of a random rule, as it was written; empty: it is none
    double share = 0;        // the same, of 1
    std::uint64_t seed = 0;
};

template<std::size_t size>
std::optional<std::uint8_t> index_of(const std::string_view (&names)[size], std::string_view name)
{
    for (std::size_t index = 0; index < size; ++index) {
        if (names[index] == name)
            return static_cast<std::uint8_t>(index);
    }
    return std::nullopt;
}

template<class number>
bool parse_whole(std::string_view word, number &value)
{
    const auto [end, failure] = std::from_chars(word.data(), word.data() + word.size(), value);
    return failure == std::errc() && end == word.data() + word.size();
}

bool parse_count(std::string_view word, std::uint32_t &number)
{
    constexpr std::uint32_t MOST = 999'999'999;
    return parse_whole(word, number) && number > 0 && number <= MOST;
}

bool is_death(flash_fault fault)
{
    return fault == flash_fault::stop || fault == flash_fault::torn || fault == flash_fault::after;
}

bool parse_kind(std::string_view fault_name, std::string_view operation_name, fault_rule &rule)
{
    const auto fault = index_of(FAULT_NAMES, fault_name);
    const auto operation = index_of(OPERATION_NAMES, operation_name);
    if (!fault || *fault == 0 || !operation)
        return false;
    rule.fault = static_cast<flash_fault>(*fault);
    rule.operation = static_cast<flash_operation>(*operation);
    return rule.operation != flash_operation::marker ||
           (rule.fault != flash_fault::part && rule.fault != flash_fault::flip);
}

std::optional<fault_rule> parse_random_rule(const std::vector<std::string> &words)
{
    fault_rule rule;
    if (words.size() != 5 || !parse_kind(words[1], words[2], rule) || is_death(rule.fault))
        return std::nullopt;
    rule.percent = words[3];
    double percent = 0;
    if (!rule.percent.ends_with('%') || !parse_whole(rule.percent.substr(0, rule.percent.size() - 1), percent) ||
        !(percent >= LEAST_PERCENT && percent <= MOST_PERCENT) || !parse_whole(words[4], rule.seed))
        return std::nullopt;
    rule.share = percent / 100;
    return rule;
}

std::optional<fault_rule> parse_rule(const std::string &line)
{
    std::istringstream text(line);
    std::vector<std::string> words{std::istream_iterator<std::string>(text), {}};
    if (!words.empty() && words[0] == RANDOM)
        return parse_random_rule(words);
    fault_rule rule;
    if (words.size() < 3 || !parse_kind(words[0], words[1], rule))
        return std::nullopt;
    if (words.back() == HOLD) {
        rule.hold = is_death(rule.fault);
        words.pop_back();
        if (!rule.hold || words.size() < 3)
            return std::nullopt;
    }
    rule.always = words[2] == ALWAYS;
    if (!rule.always && !parse_count(words[2], rule.after))
        return std::nullopt;
    if (words.size() > 4 || (words.size() == 4 && !parse_count(words[3], rule.count)))
        return std::nullopt;
    return rule;
}

std::string rule_line(const fault_rule &rule)
{
    std::string line(rule.percent.empty() ? "" : std::string(RANDOM) + ' ');
    line += FAULT_NAMES[static_cast<std::size_t>(rule.fault)];
    line += ' ';
    line += OPERATION_NAMES[static_cast<std::size_t>(rule.operation)];
    if (!rule.percent.empty())
        return line + ' ' + rule.percent + ' ' + std::to_string(rule.seed) + '\n';
    line += ' ' + std::to_string(rule.after);
    if (rule.count > 1)
        line += ' ' + std::to_string(rule.count);
    if (rule.hold)
        line += ' ' + std::string(HOLD);
    return line + '\n';
}

bool happens(const fault_rule &rule)
{
    return chance_happens(spread_number(rule.seed), rule.share);
}

void order(const fault_rule &rule, flash_fault_order &happened)
{
    happened.fault = rule.fault;
    happened.hold = rule.hold;
    happened.noise = spread_number(rule.seed + SEED_STEP / 2);
}

// Takes one operation into account; happened is set by the first rule that is due. The line to keep, or nothing
// when the rule is used up.
std::string counted_line(const std::string &line, fault_rule rule, flash_operation operation,
                         flash_fault_order &happened)
{
    if (rule.operation != operation)
        return line + '\n';
    const bool is_free = happened.fault == flash_fault::none;
    if (!rule.percent.empty()) {
        rule.seed += SEED_STEP;
        if (is_free && happens(rule))
            order(rule, happened);
        return rule_line(rule);
    }
    if (rule.always) {
        if (is_free)
            order(rule, happened);
        return line + '\n';
    }
    if (rule.after > 1) {
        --rule.after;
        return rule_line(rule);
    }
    if (!is_free)
        return line + '\n';
    order(rule, happened);
    --rule.count;
    return rule.count > 0 ? rule_line(rule) : std::string();
}

std::string counted_rules(const std::string &rules, flash_operation operation, flash_fault_order &happened)
{
    std::istringstream lines(rules);
    std::string kept, line;
    while (std::getline(lines, line)) {
        const bool remark =
            line.find_first_not_of(" \t") == std::string::npos || line.find('#') != std::string::npos;
        const auto rule = remark ? std::nullopt : parse_rule(line);
        if (rule)
            kept += counted_line(line, *rule, operation, happened);
        else
            kept += (remark ? "" : std::string(NOT_UNDERSTOOD)) + line + '\n';
    }
    return kept;
}

} // namespace

bool flash_fault_rules::is_known_absent(flash_operation operation, std::uint32_t sector) const
{
    return operation == flash_operation::program && quiet_sector_ == sector;
}

flash_fault_order flash_fault_rules::take(flash_operation operation, std::uint32_t sector)
{
    // Pages are many and short: looking for the file at each would take more time than programming them.
    if (is_known_absent(operation, sector))
        return flash_fault::none;
    quiet_sector_.reset();
    if (::faccessat(folder_.fd.get(), FLASH_FILE_FAULTS, F_OK, 0) != 0) {
        if (operation == flash_operation::program)
            quiet_sector_ = sector;
        return flash_fault::none;
    }
    const flash_folder_lock lock(folder_);
    std::string rules;
    if (!chassis_read_file(folder_.file(FLASH_FILE_FAULTS), rules))
        return flash_fault::none;
    flash_fault_order happened = flash_fault::none;
    const std::string kept = counted_rules(rules, operation, happened);
    if (kept.empty())
        (void)::unlinkat(folder_.fd.get(), FLASH_FILE_FAULTS, 0); // the file had no rules left
    else if (kept != rules)
        (void)flash_folder_rewrite(folder_, FLASH_FILE_FAULTS, kept); // or else the rule happens again
    return happened;
}
