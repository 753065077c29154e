#include "figure.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sys/utsname.h>
#include <unistd.h>

namespace
{

double nth(std::vector<double> values, double percent)
{
    std::sort(values.begin(), values.end());
    const double rank = std::ceil(percent / 100 * static_cast<double>(values.size()));
    const auto index = static_cast<std::size_t>(std::max(rank, 1.0)) - 1;
    return values.at(std::min(index, values.size() - 1));
}

// Three digits that matter, without an exponent.
std::string short_number(double value)
{
    const double size = std::fabs(value);
    const int digits = size == 0 || size >= 100 ? 0 : size >= 10 ? 1 : size >= 1 ? 2 : 3;
    std::array<char, 32> text;
    (void)std::snprintf(text.data(), text.size(), "%.*f", digits, value);
    return text.data();
}

double compared_value(const figure &told, const samples &side)
{
    return told.of_percentile == 50 ? side.median() : side.percentile(told.of_percentile);
}

std::string side_text(const figure &told, const samples &side)
{
    if (side.values.empty())
        return "";
    std::string text = side.name + " " + short_number(compared_value(told, side)) + " " + told.unit;
    if (side.values.size() > 1)
        text += " (" + short_number(side.least()) + ".." + short_number(side.most()) + ")";
    return text;
}

std::string value_text(const figure &told)
{
    switch (told.compared) {
    case comparison::ratio:
        return short_number(told.value());
    case comparison::difference:
        return (told.value() < 0 ? "" : "+") + short_number(told.value()) + " " + told.unit;
    case comparison::count:
        break;
    }
    return short_number(told.value());
}

std::string goal_text(const figure &told)
{
    if (told.compared == comparison::difference)
        return "<= +" + short_number(told.goal) + " " + told.unit;
    return (told.goal == 0 ? "" : "<= ") + short_number(told.goal);
}

std::string processor_name()
{
    std::ifstream information("/proc/cpuinfo");
    for (std::string line; std::getline(information, line);) {
        if (line.rfind("model name", 0) == 0)
            return line.substr(line.find(':') + 2);
    }
    return "unknown";
}

nlohmann::json side_json(const figure &told, const samples &side)
{
    if (side.values.empty())
        return nullptr;
    return {{"name", side.name},    {"value", compared_value(told, side)}, {"least", side.least()},
            {"most", side.most()},  {"runs", side.values.size()},          {"p99", side.percentile(99)},
            {"values", side.values}};
}

} // namespace

double samples::median() const
{
    return nth(values, 50);
}

double samples::percentile(double percent) const
{
    return nth(values, percent);
}

double samples::least() const
{
    return *std::min_element(values.begin(), values.end());
}

double samples::most() const
{
    return *std::max_element(values.begin(), values.end());
}

double figure::value() const
{
    const double own = compared_value(*this, ours);
    switch (compared) {
    case comparison::ratio:
        return own / compared_value(*this, reference);
    case comparison::difference:
        return own - compared_value(*this, reference);
    case comparison::count:
        break;
    }
    return own;
}

std::string table_of(const std::vector<figure> &figures)
{
    std::vector<std::array<std::string, 7>> lines{{"#", "name", "ours", "reference", "ratio", "goal", ""}};
    for (const figure &told : figures) {
        lines.push_back({std::to_string(told.row), told.name, side_text(told, told.ours),
                         side_text(told, told.reference), value_text(told), goal_text(told),
                         told.is_met() ? "met" : "NOT MET"});
    }
    std::array<std::size_t, 7> widths{};
    for (const auto &line : lines) {
        for (std::size_t column = 0; column < line.size(); ++column)
            widths.at(column) = std::max(widths.at(column), line.at(column).size());
    }
    std::string text;
    for (const auto &line : lines) {
        std::string row;
        for (std::size_t column = 0; column < line.size(); ++column) {
            row += line.at(column);
            row.append(widths.at(column) - line.at(column).size() + 2, ' ');
        }
        row.erase(row.find_last_not_of(' ') + 1);
        text += row + "\n";
    }
    for (const figure &told : figures) {
        if (!told.remark.empty())
            text += std::to_string(told.row) + ", " + told.name + ": " + told.remark + "\n";
    }
    return text;
}

std::string json_of(const std::vector<figure> &figures)
{
    utsname kernel{};
    (void)::uname(&kernel);
    std::array<char, 32> date{};
    const std::time_t now = std::time(nullptr);
    std::tm broken_down{};
    (void)std::strftime(date.data(), date.size(), "%Y-%m-%d", ::gmtime_r(&now, &broken_down));

    nlohmann::json rows = nlohmann::json::array();
    for (const figure &told : figures) {
        const char *const compared[] = {"ratio", "difference", "count"};
        rows.push_back({{"row", told.row},
                        {"name", told.name},
                        {"unit", told.unit},
                        {"ours", side_json(told, told.ours)},
                        {"reference", side_json(told, told.reference)},
                        {"compared", compared[static_cast<int>(told.compared)]},
                        {"percentile", told.of_percentile},
                        {"ratio", told.value()},
                        {"goal", told.goal},
                        {"met", told.is_met()},
                        {"remark", told.remark}});
    }
    const nlohmann::json machine{{"processor", processor_name()},
                                 {"processors", ::sysconf(_SC_NPROCESSORS_ONLN)},
                                 {"kernel", std::string(kernel.sysname) + " " + kernel.release}};
    return nlohmann::json{{"machine", machine}, {"date", date.data()}, {"figures", rows}}.dump(1);
}
