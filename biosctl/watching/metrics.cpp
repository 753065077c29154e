#include "metrics.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "agents.h"
#include "client.h"
#include "daemon_node.h"
#include "inventory.h"
#include "result_text.h"
#include "serving_slot.h"

namespace
{

using label_list = std::vector<std::pair<std::string, std::string>>;

constexpr const char *UNKNOWN_VERSION = "unknown";
constexpr std::uint64_t SECOND_MS = 1000;

label_list labels_of(const flash_facts &flash)
{
    return {{"slot", std::to_string(flash.slot)}, {"flash", flash_instance_name(flash.instance)}};
}

label_list labels_of(const card_facts &card)
{
    return {{"slot", std::to_string(card.slot)}};
}

label_list with(label_list labels, label_list more)
{
    labels.insert(labels.end(), more.begin(), more.end());
    return labels;
}

std::string seconds_text(std::uint64_t milliseconds)
{
    char text[40];
    (void)std::snprintf(text, sizeof text, "%" PRIu64 ".%03u", milliseconds / SECOND_MS,
                        static_cast<unsigned>(milliseconds % SECOND_MS));
    return text;
}

template<class Facts, class Value>
metric_family family_of(const char *name, const char *type, const char *help, const std::vector<Facts> &all,
                        Value &&value)
{
    metric_family family{name, type, help};
    for (const Facts &one : all)
        family.samples.push_back({.labels = labels_of(one), .value = std::to_string(value(one))});
    return family;
}

metric_family codes_family(const char *name, const char *help, const std::vector<flash_facts> &flashes,
                           flash_event_totals::count_by_code flash_event_totals::*counters)
{
    metric_family family{name, "counter", help};
    for (const flash_facts &flash : flashes) {
        for (const auto &[code, count] : flash.totals.*counters)
            family.samples.push_back({.labels = with(labels_of(flash), {{"code", code_text(code)},
                                                                        {"name", describe_result(code).name}}),
                                      .value = std::to_string(count)});
    }
    return family;
}

metric_family duration_family(const std::vector<flash_facts> &flashes)
{
    metric_family family{"bios_programming_duration_seconds", "histogram",
                         "Time of programmings that have ended, whatever their result, with all attempts."};
    for (const flash_facts &flash : flashes) {
        const label_list labels = labels_of(flash);
        std::uint64_t count = 0;
        for (std::size_t place = 0; place < flash.totals.took.size(); ++place) {
            count += flash.totals.took[place];
            const std::string limit =
                place < DURATION_LIMITS_MS.size() ? std::to_string(DURATION_LIMITS_MS[place] / SECOND_MS) : "+Inf";
            family.samples.push_back({with(labels, {{"le", limit}}), std::to_string(count), "_bucket"});
        }
        family.samples.push_back({labels, seconds_text(flash.totals.duration_ms), "_sum"});
        family.samples.push_back({labels, std::to_string(count), "_count"});
    }
    return family;
}

metric_family card_info(const std::vector<card_facts> &cards)
{
    metric_family family{"bios_card_info", "gauge", "Card id and role of a card; always 1."};
    for (const card_facts &card : cards)
        family.samples.push_back(
            {with(labels_of(card), {{"card_id", std::to_string(card.card_id)}, {"role", card.role}}), "1"});
    return family;
}

metric_family flash_info(const std::vector<flash_facts> &flashes)
{
    metric_family family{"bios_flash_info", "gauge", "Version of the BIOS in a flash; always 1."};
    for (const flash_facts &flash : flashes)
        family.samples.push_back({with(labels_of(flash), {{"version", flash.version}}), "1"});
    return family;
}

metric_family locked_modules(const std::vector<card_facts> &cards)
{
    metric_family family{"bios_module_locked", "gauge", "1 while the module's lock is held."};
    for (const card_facts &card : cards) {
        if (card.locked)
            family.samples.push_back({labels_of(card), *card.locked ? "1" : "0"});
    }
    return family;
}

// None when its agent does not say what has happened to it: counters of 0 would be a claim.
std::optional<flash_facts> facts_of(unsigned slot, const card_flash &flash)
{
    const std::uint32_t node = node_of_module(slot);
    const auto totals = ask_for_totals(node, flash.instance);
    if (!totals)
        return std::nullopt;
    const std::string version = ask_for_version(node, flash.instance).value_or("");
    // One that is marked may be half old and half new; the marker is set before any change.
    const bool is_known = !flash.activity.marked && !version.empty();
    return flash_facts{.slot = slot,
                       .instance = flash.instance,
                       .totals = *totals,
                       .erases = flash.erases,
                       .sectors = flash.sector_bytes != 0 ? flash.size_bytes / flash.sector_bytes : 0,
                       .marked = flash.activity.marked,
                       .has_writer = flash.activity.has_writer,
                       .version = is_known ? version : UNKNOWN_VERSION};
}

card_facts facts_of(unsigned slot, bool serves, const std::optional<std::vector<chassis_module_lock_holder>> &locks)
{
    const auto is_of_slot = [slot](const chassis_module_lock_holder &lock) {
        return module_of_node(lock.node_id) == slot;
    };
    return {.slot = slot,
            .card_id = card_id_of(slot),
            .role = slot_is_active(slot) ? "active" : (slot_is_standby(slot) ? "standby" : "none"),
            .serves = serves,
            .locked = locks ? std::optional(std::ranges::any_of(*locks, is_of_slot)) : std::nullopt};
}

} // namespace

std::vector<metric_family> metric_families(const std::vector<card_facts> &cards,
                                           const std::vector<flash_facts> &flashes)
{
    const auto total = [&](const char *name, const char *help, std::uint64_t flash_event_totals::*counter) {
        return family_of(name, "counter", help, flashes,
                         [counter](const flash_facts &flash) { return flash.totals.*counter; });
    };
    using totals = flash_event_totals;
    return {
        total("bios_programmings_begun_total", "Programmings of a flash that were begun.", &totals::begun),
        codes_family("bios_programmings_ended_total", "Programmings that have ended, by result code.", flashes,
                     &totals::ended),
        total("bios_programmings_equal_total", "Attempts that found the flash equal to the image already.",
              &totals::equal),
        total("bios_programmings_cut_off_total", "Programmings that were found left behind in their midst.",
              &totals::cut_off),
        total("bios_flash_events_lost_total", "Events that could not be written and are counted nowhere else.",
              &totals::lost),
        codes_family("bios_programming_attempts_failed_total",
                     "Attempts, or erases before the first, that have failed, by result code.", flashes,
                     &totals::failed),
        codes_family("bios_programming_attempts_refused_total",
                     "Attempts that did not get to the flash, by result code.", flashes, &totals::refused),
        duration_family(flashes),
        total("bios_flash_bytes_written_total", "Bytes written into a flash by attempts that have ended.",
              &totals::bytes_written),
        total("bios_flash_sectors_erased_total", "Sectors erased by attempts that have ended.",
              &totals::sectors_erased),
        family_of("bios_flash_wear_erases_total", "counter", "Sector erases over the life of a flash.", flashes,
                  [](const flash_facts &flash) { return flash.erases; }),
        family_of("bios_flash_sectors", "gauge", "Sectors of a flash.", flashes,
                  [](const flash_facts &flash) { return flash.sectors; }),
        family_of("bios_flash_marked", "gauge",
                  "1 when a programming was begun and the flash was not found equal to an image since.", flashes,
                  [](const flash_facts &flash) { return flash.marked ? 1 : 0; }),
        family_of("bios_flash_being_programmed", "gauge", "1 while a process works on a flash.", flashes,
                  [](const flash_facts &flash) { return flash.has_writer ? 1 : 0; }),
        flash_info(flashes),
        locked_modules(cards),
        family_of("bios_card_up", "gauge", "1 while a card's daemon serves.", cards,
                  [](const card_facts &card) { return card.serves ? 1 : 0; }),
        card_info(cards),
    };
}

outcome run_metrics(const std::vector<unsigned> &modules)
{
    const auto locks = ask_for_locks();
    std::vector<card_facts> cards;
    std::vector<flash_facts> flashes;
    for (const unsigned slot : modules_named(modules)) {
        if (!module_exists(slot))
            return no_module_failure(slot);
        const auto card = ask_for_card(node_of_module(slot));
        const bool serves = card ? card->serves : daemon_serves(node_of_module(slot));
        cards.push_back(facts_of(slot, serves, locks));
        for (const card_flash &flash : card ? card->flashes : std::vector<card_flash>{}) {
            if (auto facts = facts_of(slot, flash); facts)
                flashes.push_back(std::move(*facts));
        }
    }
    const std::vector<metric_family> families = metric_families(cards, flashes);
    return {.json = {{"command", "metrics"}, {"metrics", metrics_json(families)}},
            .report = metrics_text(families)};
}
