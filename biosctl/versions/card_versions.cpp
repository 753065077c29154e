#include "card_versions.h"

#include <algorithm>
#include <cerrno>
#include <optional>

#include "bios_results.h"
#include "client.h"
#include "inventory.h"
#include "lock_holders.h"
#include "query_process.h"
#include "result_text.h"

namespace
{

// What has been learnt about one card so far.
struct card {
    unsigned module = 0;
    bool reachable = true;
    std::vector<flash_versions> flashes = {};
    std::vector<source_version> sources = {};
    std::vector<std::string> reasons = {};

    std::uint32_t node() const { return node_of_module(module); }
};

class flash_collection
{
public:
    flash_collection(unsigned serving_slot, unsigned timeout_s) : slot_(serving_slot), timeout_s_(timeout_s) {}

    void collect(std::vector<card> &cards);
    int total_failure() const { return answered_ || stuck_ ? 0 : error_; }
    bool stuck() const { return stuck_; } // it still waits for a module that does not answer

private:
    void ask(card &asked);
    void take(card &asked, const request_answer &answer);
    request_answer request(unsigned module)
    {
        return endpoint_.request(node_of_module(slot_), encode_module_version_request(module), timeout_s_);
    }

    client_endpoint endpoint_;
    unsigned slot_;
    unsigned timeout_s_;
    bool answered_ = false;
    bool doubtful_ = false; // the last request timed out
    bool stuck_ = false;
    int error_ = 0;
};

// The serving card first: its daemon answers for it without asking anybody, and may come to wait for others.
void flash_collection::collect(std::vector<card> &cards)
{
    if (!endpoint_.bound()) {
        error_ = errno;
        return;
    }
    for (const bool serving : {true, false}) {
        for (card &asked : cards) {
            if ((asked.module == slot_) == serving)
                ask(asked);
        }
    }
}

// After a time-out the serving daemon may still wait for that module; its own versions tell whether it does.
void flash_collection::ask(card &asked)
{
    if (doubtful_ && error_ == 0) {
        const request_answer probe = request(slot_);
        doubtful_ = false;
        answered_ = answered_ || probe.answered;
        stuck_ = !probe.answered;
        error_ = probe.answered ? 0 : probe.error;
    }
    if (error_ != 0) {
        asked.reasons.push_back(
            "not asked: " + slot_text(slot_) +
            (stuck_ ? " still waits for a module that does not answer" : ": " + no_answer_text(error_)));
        return;
    }
    const request_answer answer = request(asked.module);
    if (answer.answered) {
        answered_ = true;
        take(asked, answer);
        return;
    }
    if (answer.error != MTS_ERRNO_TIMED_OUT) {
        error_ = answer.error;
        asked.reasons.push_back("not asked: " + slot_text(slot_) + ": " + no_answer_text(error_));
        return;
    }
    doubtful_ = true;
    asked.reachable = false;
    asked.reasons.push_back("no answer in time through " + slot_text(slot_));
}

void flash_collection::take(card &asked, const request_answer &answer)
{
    if (answer.status != BIOS_OK) {
        asked.reasons.push_back(slot_text(slot_) + " answered with " + code_text(answer.status));
        return;
    }
    module_versions_answer versions = decode_module_versions(answer.payload, asked.module);
    switch (versions.kind) {
    case module_answer_kind::unreachable:
        asked.reachable = false;
        asked.reasons.push_back(slot_text(slot_) + " got no versions from it");
        return;
    case module_answer_kind::other_module:
        asked.reasons.push_back(slot_text(slot_) + " answered about module " +
                                std::to_string(versions.described_module));
        return;
    case module_answer_kind::not_understood:
        asked.reasons.push_back("the answer of " + slot_text(slot_) + " is not understood");
        return;
    case module_answer_kind::versions:
        break;
    }
    asked.flashes = std::move(versions.entries);
    if (asked.flashes.empty())
        asked.reasons.push_back("it tells of no flash");
    if (versions.empty_entries > 0)
        asked.reasons.push_back("empty entries in its answer: " + std::to_string(versions.empty_entries));
}

void take_sources(card &asked, const request_answer &answer)
{
    const auto complain = [&](const std::string &why) { asked.reasons.push_back("no image version: " + why); };
    if (!answer.answered)
        return complain(no_answer_text(answer.error));
    if (answer.status != BIOS_OK)
        return complain("its daemon answered with " + code_text(answer.status));
    auto sources = decode_source_versions(answer.payload);
    if (!sources)
        return complain("its daemon's answer is not understood");
    if (sources->status != BIOS_OK)
        complain("its daemon reports " + code_text(sources->status));
    else if (sources->entries.empty())
        complain("its image tree holds no BIOS for it");
    asked.sources = std::move(sources->entries);
}

void ask_for_sources(const std::vector<card *> &cards, unsigned timeout_s)
{
    std::vector<daemon_query> queries;
    queries.reserve(cards.size());
    for (const card *asked : cards)
        queries.push_back({asked->node(), encode_source_version_request(std::nullopt, NO_PROGRESS_NOTICES),
                           timeout_s, SOURCE_ANSWER_BYTES_MAX});
    const std::vector<request_answer> answers = ask_all(queries);
    for (std::size_t k = 0; k < cards.size(); ++k)
        take_sources(*cards[k], answers[k]);
}

void collect_sources(std::vector<card> &cards, const flash_collection &flashes, unsigned serving_slot,
                     unsigned timeout_s)
{
    std::vector<card *> together;
    std::vector<card *> alone;
    for (card &asked : cards) {
        if (!asked.reachable)
            continue;
        if (asked.module == serving_slot && flashes.stuck())
            asked.reasons.push_back("no image version: it still waits for a module that does not answer");
        else
            (slot_is_standby(asked.module) ? alone : together).push_back(&asked);
    }
    ask_for_sources(together, timeout_s);
    for (card *asked : alone)
        ask_for_sources({asked}, timeout_s);
}

void refuse_sources(std::vector<card> &cards, const programming_locks &locks)
{
    for (card &refused : cards) {
        if (refused.reachable && !locks.has(refused.node()))
            refused.reasons.push_back(locks.readable ? "no image version: not read while a programming runs"
                                                     : "no image version: the module locks cannot be read");
    }
}

card_report report_on(const card &known, bool being_programmed)
{
    card_report report{.module = known.module, .reasons = known.reasons};
    // A card that told of no flash is told about all the same.
    const std::size_t count = std::max<std::size_t>(known.flashes.size(), 1);
    for (std::size_t k = 0; k < count; ++k) {
        flash_report flash{.facts = {.being_programmed = being_programmed, .reachable = known.reachable}};
        if (k < known.flashes.size()) {
            flash.label = known.flashes[k].label;
            flash.facts.flash = known.flashes[k].flash;
            flash.facts.running = known.flashes[k].running;
            flash.facts.source = source_for(known.flashes, k, known.sources);
        } else if (known.sources.size() == 1) {
            flash.facts.source = known.sources.front().version;
        }
        flash.kind = judge(flash.facts);
        report.flashes.push_back(std::move(flash));
    }
    return report;
}

} // namespace

std::string source_for(const std::vector<flash_versions> &flashes, std::size_t k,
                       const std::vector<source_version> &sources)
{
    const std::string &label = flashes[k].label;
    if (flashes.size() == sources.size())
        return sources[k].label == label ? sources[k].version : "";
    if (std::ranges::count(flashes, label, &flash_versions::label) != 1 ||
        std::ranges::count(sources, label, &source_version::label) != 1)
        return "";
    return std::ranges::find(sources, label, &source_version::label)->version;
}

chassis_report collect_versions(unsigned serving_slot, const std::vector<unsigned> &modules, unsigned timeout_s)
{
    std::vector<card> cards;
    cards.reserve(modules.size());
    for (const unsigned module : modules)
        cards.push_back({.module = module});

    const programming_locks before = find_programming();
    flash_collection flashes(serving_slot, timeout_s);
    flashes.collect(cards);
    chassis_report report{.serving_slot = serving_slot, .serving_error = flashes.total_failure()};
    if (report.serving_error != 0)
        return report;

    // A programming that ended in between had its flash told as the running version.
    const programming_locks locks = find_programming();
    if (locks.readable && !locks.any)
        collect_sources(cards, flashes, serving_slot, timeout_s);
    else
        refuse_sources(cards, locks);
    for (const card &known : cards)
        report.cards.push_back(report_on(known, before.has(known.node()) || locks.has(known.node())));
    return report;
}
