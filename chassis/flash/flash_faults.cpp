// The rules of the file `faults`: reading, counting down, writing back.
#include "flash_faults.h"

#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <unistd.h>

#include "chassis_dir.h"
#include "flash_folder.h"
#include "flash_layout.h"

namespace
{

constexpr std::string_view FAULT_NAMES[] = {"none", "fail", "lie", "stop", "torn"};
constexpr std::string_view OPERATION_NAMES[] = {"erase", "program", "read", "marker"};
constexpr std::string_view NOT_UNDERSTOOD = "# not understood: ";

struct fault_rule {
    flash_fault fault;
    flash_operation operation;
    bool always;
    std::uint32_t after; // operations until it happens, 1 the next
    std::uint32_t count; // operations in a row to which it happens
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

// A number of at least 1; the stream's own conversion would take "-1".
bool parse_count(const std::string &word, std::uint32_t &number)
{
    if (word.empty() || word.size() > 9 || word.find_first_not_of("0123456789") != std::string::npos)
        return false;
    number = static_cast<std::uint32_t>(std::stoul(word));
    return number > 0;
}

std::optional<fault_rule> parse_rule(const std::string &line)
{
    std::istringstream words(line);
    std::string fault_name, operation_name, after, count, more;
    words >> fault_name >> operation_name >> after >> count >> more;
    const auto fault = index_of(FAULT_NAMES, fault_name);
    const auto operation = index_of(OPERATION_NAMES, operation_name);
    if (!fault || *fault == 0 || !operation || !more.empty())
        return std::nullopt;
    fault_rule rule{static_cast<flash_fault>(*fault), static_cast<flash_operation>(*operation), after == "always",
                    1, 1};
    if (!rule.always && !parse_count(after, rule.after))
        return std::nullopt;
    if (!count.empty() && !parse_count(count, rule.count))
        return std::nullopt;
    return rule;
}

std::string rule_line(const fault_rule &rule)
{
    std::string line(FAULT_NAMES[static_cast<std::size_t>(rule.fault)]);
    line += ' ';
    line += OPERATION_NAMES[static_cast<std::size_t>(rule.operation)];
    line += ' ' + std::to_string(rule.after);
    if (rule.count > 1)
        line += ' ' + std::to_string(rule.count);
    return line + '\n';
}

// Takes one operation into account; happened is set by the first rule that is due. The line to keep, or nothing
// when the rule is used up.
std::string counted_line(const std::string &line, fault_rule rule, flash_operation operation, flash_fault &happened)
{
    if (rule.operation != operation)
        return line + '\n';
    if (rule.always) {
        if (happened == flash_fault::none)
            happened = rule.fault;
        return line + '\n';
    }
    if (rule.after > 1) {
        --rule.after;
        return rule_line(rule);
    }
    if (happened != flash_fault::none)
        return line + '\n';
    happened = rule.fault;
    --rule.count;
    return rule.count > 0 ? rule_line(rule) : std::string();
}

std::string counted_rules(const std::string &rules, flash_operation operation, flash_fault &happened)
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

flash_fault flash_fault_rules::take(flash_operation operation, std::uint32_t sector)
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
    flash_fault happened = flash_fault::none;
    const std::string kept = counted_rules(rules, operation, happened);
    if (kept.empty())
        (void)::unlinkat(folder_.fd.get(), FLASH_FILE_FAULTS, 0); // the file had no rules left
    else if (kept != rules)
        (void)flash_folder_rewrite(folder_, FLASH_FILE_FAULTS, kept); // or else the rule happens again
    return happened;
}
