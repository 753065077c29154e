#include "show_report.h"

#include <algorithm>
#include <cstdio>

#include "card_groups.h"
#include "inventory.h"
#include "result_text.h"

namespace
{

// Columns of the table, gaps included where they follow a column. Versions of two digits need one more, which the
// gap behind the slot gives.
struct table_layout {
    int slot_and_gap;
    std::size_t version;
};
constexpr table_layout USUAL_LAYOUT = {.slot_and_gap = 6, .version = 16}; // "v3.5.0(09/17/12)"
constexpr table_layout WIDE_LAYOUT = {.slot_and_gap = 5, .version = 17};  // "v10.5.0(09/17/12)"

table_layout layout_for(const std::vector<card_report> &cards)
{
    for (const card_report &card : cards) {
        for (const flash_report &flash : card.flashes) {
            for (const std::string *text : {&flash.facts.source, &flash.facts.flash, &flash.facts.running}) {
                if (text->size() > USUAL_LAYOUT.version)
                    return WIDE_LAYOUT;
            }
        }
    }
    return USUAL_LAYOUT;
}

std::string cell(const std::string &text, const table_layout &layout)
{
    if (text.empty())
        return "-";
    return text.size() <= layout.version ? text : text.substr(0, layout.version - 1) + "~";
}

std::string table_line(const table_layout &layout, const std::string &slot, const std::string &source,
                       const std::string &flash, const std::string &running, const std::string &judged)
{
    const int width = static_cast<int>(layout.version);
    char line[SHOW_TABLE_COLUMNS + 1];
    (void)std::snprintf(line, sizeof line, "%-*s%-*s  %-*s  %-*s  %s", layout.slot_and_gap, slot.c_str(), width,
                        cell(source, layout).c_str(), width, cell(flash, layout).c_str(), width,
                        cell(running, layout).c_str(), judged.c_str());
    return line;
}

std::size_t count_of(const std::vector<card_report> &cards, verdict kind)
{
    std::size_t count = 0;
    for (const card_report &card : cards)
        count += static_cast<std::size_t>(std::ranges::count(card.flashes, kind, &flash_report::kind));
    return count;
}

// "in step: 2, unknown: 1".
std::string summary_text(const std::vector<card_report> &cards)
{
    std::string text;
    for (const verdict_row &row : verdict_rows()) {
        if (const std::size_t count = count_of(cards, row.kind); count > 0)
            text += (text.empty() ? "" : ", ") + std::string(row.name) + ": " + std::to_string(count);
    }
    return text;
}

// What the verdicts that occur ask for; nothing about those that ask for nothing.
std::string meanings_text(const std::vector<card_report> &cards)
{
    std::string text;
    for (const verdict_row &row : verdict_rows()) {
        if (row.kind != verdict::in_step && count_of(cards, row.kind) > 0)
            text += std::string("\n") + row.name + ": " + row.meaning;
    }
    return text;
}

std::string reasons_text(const std::vector<card_report> &cards)
{
    std::string text;
    for (const card_report &card : cards) {
        for (const std::string &reason : card.reasons)
            text += "\nslot " + std::to_string(card.module) + ": " + reason;
    }
    return text;
}

std::string one_module_note(unsigned serving_slot)
{
    return slot_text(serving_slot) + " tells of module " + std::to_string(TARVIK_A_MODULE_NUM) +
           " whatever module it is asked for";
}

nlohmann::ordered_json json_of_card(const card_report &card)
{
    nlohmann::ordered_json flashes = nlohmann::ordered_json::array();
    for (const flash_report &flash : card.flashes)
        flashes.push_back({{"label", flash.label},
                           {"source", text_or_null(flash.facts.source)},
                           {"flash", text_or_null(flash.facts.flash)},
                           {"running", text_or_null(flash.facts.running)},
                           {"verdict", verdict_name(flash.kind)}});
    return {{"module", card.module}, {"flashes", flashes}, {"reasons", card.reasons}};
}

} // namespace

std::string version_table(const std::vector<card_report> &cards)
{
    const table_layout layout = layout_for(cards);
    std::string text = table_line(layout, "SLOT", "SOURCE", "FLASH", "RUNNING", "VERDICT");
    for (const card_report &card : cards) {
        for (const flash_report &flash : card.flashes)
            text += "\n" + table_line(layout, std::to_string(card.module), flash.facts.source, flash.facts.flash,
                                      flash.facts.running, verdict_name(flash.kind));
    }
    return text;
}

nlohmann::ordered_json json_of_cards(const std::vector<card_report> &cards)
{
    nlohmann::ordered_json array = nlohmann::ordered_json::array();
    for (const card_report &card : cards)
        array.push_back(json_of_card(card));
    return array;
}

outcome report_versions(const chassis_report &versions, show_kind kind, bool serving_tells_one_module)
{
    std::size_t flashes = 0;
    for (const card_report &card : versions.cards)
        flashes += card.flashes.size();
    const std::size_t in_step = count_of(versions.cards, verdict::in_step);

    outcome told;
    told.report = version_table(versions.cards) + meanings_text(versions.cards) + reasons_text(versions.cards);
    nlohmann::ordered_json notes = nlohmann::ordered_json::array();
    if (serving_tells_one_module) {
        notes.push_back(one_module_note(versions.serving_slot));
        told.report += "\nnote: " + one_module_note(versions.serving_slot);
    }
    told.json = {{"command", kind == show_kind::audit ? "audit" : "show"},
                 {"serving_slot", versions.serving_slot},
                 {"all_in_step", in_step == flashes},
                 {"cards", json_of_cards(versions.cards)},
                 {"notes", notes}};
    if (kind == show_kind::audit) {
        told.exit = in_step == flashes ? EXIT_DONE : EXIT_FAILED;
        told.headline =
            told.exit == EXIT_DONE ? "all in step" : "not in step (" + summary_text(versions.cards) + ")";
    }
    if (told.exit != EXIT_DONE)
        told.json["error"] = told.headline;
    return told;
}
