#include "show_report.h"

#include <algorithm>

#include "inventory.h"
#include "result_text.h"
#include "serving_slot.h"

namespace
{

constexpr std::size_t VERSION_COLUMNS = 16; // "v3.5.0(09/17/12)"

std::size_t count_of(const std::vector<card_report> &cards, verdict kind)
{
    std::size_t count = 0;
    for (const card_report &card : cards)
        count += static_cast<std::size_t>(std::ranges::count(card.flashes, kind, &flash_report::kind));
    return count;
}

// "in step: 2, unknown: 1".
styled_text summary_text(const std::vector<card_report> &cards)
{
    styled_text text;
    for (const verdict_row &row : verdict_rows()) {
        if (const std::size_t count = count_of(cards, row.kind); count > 0)
            text += (text.empty() ? "" : ", ") + styled_text(row.name, row.meaning) + ": " + std::to_string(count);
    }
    return text;
}

// A card to which nobody brings an image programs the one that it has.
constexpr const char *IMAGE_IS_MISSING =
    ": nobody brings an image to this card; put it there as /bootflash/.tmpbios.bin before it is programmed";

// What the verdicts that occur ask for; nothing about those that ask for nothing.
void add_meanings(text_report &report, const std::vector<card_report> &cards)
{
    for (const verdict_row &row : verdict_rows()) {
        const styled_text name(row.name, row.meaning);
        std::vector<card_report> advised = cards;
        if (row.programs)
            std::erase_if(advised, [](const card_report &card) { return !card.gets_image; });
        if (row.kind != verdict::in_step && count_of(advised, row.kind) > 0)
            report.push_back(text_line{name + ": " + advice_text(row)});
        for (const card_report &card : cards) {
            if (row.programs && !card.gets_image && count_of({card}, row.kind) > 0)
                report.push_back(text_line{name + ", " + slot_text(card.module) + IMAGE_IS_MISSING});
        }
    }
}

void add_reasons(text_report &report, const std::vector<card_report> &cards)
{
    for (const card_report &card : cards) {
        for (const std::string &fault : card.log_faults)
            report.push_back(text_line{"slot " + std::to_string(card.module) + ": " +
                                       styled_text("event log not whole", text_meaning::wrong) + ": " + fault});
        for (const std::string &reason : card.reasons)
            report.push_back(text_line{"slot " + std::to_string(card.module) + ": " + reason});
    }
}

// A daemon's word is no reading of the flash.
std::string version_cell(const std::string &version, const version_facts &facts)
{
    return version.empty() || facts.confirmed ? version : version + "?";
}

nlohmann::ordered_json json_of_card(const card_report &card)
{
    nlohmann::ordered_json flashes = nlohmann::ordered_json::array();
    for (const flash_report &flash : card.flashes)
        flashes.push_back({{"label", flash.label},
                           {"source", text_or_null(flash.facts.source)},
                           {"flash", text_or_null(flash.facts.flash)},
                           {"running", text_or_null(flash.facts.running)},
                           {"confirmed", flash.facts.confirmed},
                           {"verdict", verdict_name(flash.kind)}});
    return {{"module", card.module},
            {"flashes", flashes},
            {"started_from", text_or_null(card.started_from)},
            {"log_faults", card.log_faults},
            {"reasons", card.reasons}};
}

} // namespace

table version_table(const std::vector<card_report> &cards)
{
    table versions({{"SLOT"},
                    {"SOURCE", VERSION_COLUMNS},
                    {"FLASH", VERSION_COLUMNS},
                    {"RUNNING", VERSION_COLUMNS},
                    {"VERDICT"}});
    for (const card_report &card : cards) {
        for (const flash_report &flash : card.flashes) {
            const verdict_row &judged = row_of(flash.kind);
            versions.add({std::to_string(card.module),
                          flash.facts.source,
                          version_cell(flash.facts.flash, flash.facts),
                          version_cell(flash.facts.running, flash.facts),
                          {judged.name, judged.meaning}});
        }
    }
    return versions;
}

nlohmann::ordered_json json_of_cards(const std::vector<card_report> &cards)
{
    nlohmann::ordered_json array = nlohmann::ordered_json::array();
    for (const card_report &card : cards)
        array.push_back(json_of_card(card));
    return array;
}

outcome report_versions(const chassis_report &versions, show_kind kind)
{
    std::size_t flashes = 0;
    for (const card_report &card : versions.cards)
        flashes += card.flashes.size();
    const std::size_t in_step = count_of(versions.cards, verdict::in_step);

    outcome told;
    told.report = {version_table(versions.cards)};
    add_meanings(told.report, versions.cards);
    add_reasons(told.report, versions.cards);
    told.json = {{"command", kind == show_kind::audit ? "audit" : "show"},
                 {"serving_slot", versions.serving_slot},
                 {"all_in_step", in_step == flashes},
                 {"cards", json_of_cards(versions.cards)}};
    if (kind == show_kind::audit) {
        const bool logs_whole =
            std::ranges::all_of(versions.cards, &std::vector<std::string>::empty, &card_report::log_faults);
        told.exit = in_step == flashes && logs_whole ? EXIT_DONE : EXIT_FAILED;
        told.headline = in_step == flashes ? "all " + styled_text("in step", text_meaning::well)
                                           : styled_text("not in step", text_meaning::wrong) + " (" +
                                                 summary_text(versions.cards) + ")";
        if (!logs_whole)
            told.headline += ", " + styled_text("event logs not whole", text_meaning::wrong);
    }
    if (versions.serving_error != 0) {
        const outcome problem = no_answer_failure(versions.serving_slot, versions.serving_error);
        told.exit = problem.exit;
        told.headline = problem.headline;
        told.hints = problem.hints;
    }
    if (told.exit != EXIT_DONE)
        told.json["error"] = told.headline.plain();
    return told;
}
