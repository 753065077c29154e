#include "sync_plan.h"

#include <algorithm>
#include <utility>

namespace
{

struct action_row {
    sync_action action;
    const char *text;
    text_meaning meaning;
};

// From what matters least about a card with several flashes to what decides about it.
constexpr action_row ROWS[] = {
    {sync_action::in_step, "none: in step", text_meaning::well},
    {sync_action::reboot_pending, "none: reboot pending", text_meaning::to_do},
    {sync_action::program_newer, "program: update", text_meaning::to_do},
    {sync_action::program_older, "program: older", text_meaning::to_do},
    {sync_action::program_no_version, "program: flash has no version", text_meaning::to_do},
    {sync_action::program_again, "program: not verified", text_meaning::wrong},
    {sync_action::left_newer, "left: newer than shipped", text_meaning::to_do},
    {sync_action::left_no_way, "left: no way to bring an image", text_meaning::wrong},
    {sync_action::left_unknown, "left: unknown", text_meaning::wrong},
    {sync_action::left_unconfirmed, "left: unconfirmed", text_meaning::wrong},
    {sync_action::left_unreachable, "left: unreachable", text_meaning::wrong},
    {sync_action::left_busy, "left: being programmed", text_meaning::to_do},
};

constexpr std::size_t VERSION_COLUMNS = 17; // "v10.5.0(09/17/12)"

bool is_told(const flash_report &flash)
{
    return !flash.label.empty() || !flash.facts.flash.empty() || !flash.facts.running.empty();
}

sync_action judge_flash(const flash_report &flash, const sync_rules &rules)
{
    const version_facts &facts = flash.facts;
    if (facts.being_programmed)
        return sync_action::left_busy;
    if (!facts.reachable)
        return sync_action::left_unreachable;
    if (!facts.confirmed)
        return sync_action::left_unconfirmed;
    const auto shipped = parse_version(facts.source);
    if (!is_told(flash) || !shipped)
        return sync_action::left_unknown;
    if (facts.not_verified)
        return sync_action::program_again;
    const auto held = parse_version(facts.flash);
    if (!held)
        return sync_action::program_no_version;
    if (shipped->number > held->number)
        return sync_action::program_newer;
    if (shipped->number < held->number)
        return rules.allow_older ? sync_action::program_older : sync_action::left_newer;
    return parse_version(facts.running) == held ? sync_action::in_step : sync_action::reboot_pending;
}

// Why the active supervisor cannot bring the image to a card; empty when it can.
std::string obstacle(const sync_card &card, const sync_rules &rules)
{
    if (rules.only_module && card.versions.module != *rules.only_module)
        return "the active supervisor programs module " + std::to_string(*rules.only_module) +
               " whatever module it is asked for";
    if (card.role == sync_role::other)
        return "the active supervisor hands an image to the standby supervisor only; this card programs the one "
               "that it finds as /bootflash/.tmpbios.bin";
    return {};
}

sync_step plan_card(const sync_card &card, const sync_rules &rules)
{
    sync_step step{.module = card.versions.module, .action = sync_action::in_step};
    for (const flash_report &flash : card.versions.flashes) {
        const sync_action action = judge_flash(flash, rules);
        if (action < step.action || (action == step.action && &flash != &card.versions.flashes.front()))
            continue;
        step.action = action;
        step.flash = flash.facts.flash;
        step.shipped = flash.facts.source;
    }
    if (has_to_be_programmed(step.action)) {
        if (const std::string why = obstacle(card, rules); !why.empty()) {
            step.action = sync_action::left_no_way;
            step.reasons.push_back(why);
        }
    } else if (!is_in_step(step.action)) {
        step.reasons = card.versions.reasons;
    }
    return step;
}

} // namespace

bool has_to_be_programmed(sync_action action)
{
    return action == sync_action::program_newer || action == sync_action::program_older ||
           action == sync_action::program_no_version || action == sync_action::program_again;
}

bool is_in_step(sync_action action)
{
    return action == sync_action::in_step || action == sync_action::reboot_pending;
}

std::vector<sync_step> plan_sync(std::vector<sync_card> cards, const sync_rules &rules)
{
    std::stable_sort(cards.begin(), cards.end(),
                     [](const sync_card &a, const sync_card &b) { return a.role < b.role; });
    std::vector<sync_step> plan;
    plan.reserve(cards.size());
    for (const sync_card &card : cards)
        plan.push_back(plan_card(card, rules));
    return plan;
}

const char *action_text(sync_action action)
{
    return ROWS[static_cast<std::size_t>(action)].text;
}

text_report plan_text(std::span<const sync_step> plan)
{
    table steps({{"MODULE"}, {"FLASH", VERSION_COLUMNS}, {"SHIPPED", VERSION_COLUMNS}, {"ACTION"}});
    for (const sync_step &step : plan)
        steps.add({std::to_string(step.module),
                   step.flash,
                   step.shipped,
                   {action_text(step.action), ROWS[static_cast<std::size_t>(step.action)].meaning}});
    text_report report{std::move(steps)};
    for (const sync_step &step : plan) {
        for (const std::string &reason : step.reasons)
            report.push_back(text_line{"module " + std::to_string(step.module) + ": " + reason});
    }
    return report;
}

nlohmann::ordered_json plan_json(std::span<const sync_step> plan)
{
    nlohmann::ordered_json array = nlohmann::ordered_json::array();
    for (const sync_step &step : plan)
        array.push_back({{"module", step.module},
                         {"action", action_text(step.action)},
                         {"program", has_to_be_programmed(step.action)},
                         {"in_step", is_in_step(step.action)},
                         {"flash", text_or_null(step.flash)},
                         {"shipped", text_or_null(step.shipped)},
                         {"reasons", step.reasons}});
    return array;
}
