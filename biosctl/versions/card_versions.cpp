#include "card_versions.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <optional>
#include <utility>

#include "agent_result_text.h"
#include "agents.h"
#include "bios_flash.h"
#include "bios_results.h"
#include "changed_flash.h"
#include "client.h"
#include "event_log_check.h"
#include "inventory.h"
#include "lock_holders.h"
#include "printable_text.h"
#include "query_process.h"
#include "result_text.h"
#include "version_records.h"

namespace
{

constexpr unsigned DAEMON_LOOK_S = 3; // a daemon that is not busy answers at once

// What has been learnt about one card so far.
struct card {
    unsigned module = 0;
    std::optional<told_versions> told = {}; // by its agent
    std::vector<flash_versions> said = {};  // by its daemon, when its agent has said nothing
    bool reachable = true;
    std::string source = {};
    std::vector<std::string> reasons = {};

    std::uint32_t node() const { return node_of_module(module); }
};

// An image that is asked for: the node of the agent that has it, and the id of the card that it is for.
using image_place_and_card = std::pair<std::uint32_t, std::uint32_t>;

image_place_and_card image_for(unsigned module, unsigned serving_slot)
{
    return {node_of_module(slot_that_unpacks_for(module, serving_slot).value_or(module)), card_id_of(module)};
}

// Asks the serving daemon for the cards whose agents say nothing, one after the other: it waits for each.
class daemon_collection
{
public:
    daemon_collection(unsigned serving_slot, unsigned timeout_s, int error)
        : slot_(serving_slot),
          timeout_s_(timeout_s),
          error_(error)
    {
    }
    void ask(card &asked);

private:
    void take(card &asked, const request_answer &answer);
    request_answer request(unsigned module)
    {
        return endpoint_.request(node_of_module(slot_), encode_module_version_request(module), timeout_s_);
    }
    bool may_ask(card &asked);

    client_endpoint endpoint_;
    unsigned slot_;
    unsigned timeout_s_;
    int error_;             // not 0: it does not answer
    bool doubtful_ = false; // the last request timed out
    bool stuck_ = false;    // it still waits for a module that does not answer
};

// After a time-out the serving daemon may still wait for that module; its own versions tell whether it does.
bool daemon_collection::may_ask(card &asked)
{
    if (doubtful_ && error_ == 0) {
        const request_answer probe = request(slot_);
        doubtful_ = false;
        stuck_ = !probe.answered;
        error_ = probe.answered ? 0 : probe.error;
    }
    if (error_ == 0)
        return true;
    asked.reachable = false;
    asked.reasons.push_back(
        "not asked: " + slot_text(slot_) +
        (stuck_ ? " still waits for a module that does not answer" : ": " + no_answer_text(error_)));
    return false;
}

void daemon_collection::ask(card &asked)
{
    asked.reasons.emplace_back("its agent does not answer");
    if (!may_ask(asked))
        return;
    const request_answer answer = request(asked.module);
    if (answer.answered)
        return take(asked, answer);
    asked.reachable = false;
    doubtful_ = answer.error == MTS_ERRNO_TIMED_OUT;
    if (!doubtful_)
        error_ = answer.error;
    asked.reasons.push_back(doubtful_ ? "no answer in time through " + slot_text(slot_)
                                      : slot_text(slot_) + ": " + no_answer_text(error_));
}

void daemon_collection::take(card &asked, const request_answer &answer)
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
    asked.said = std::move(versions.entries);
    if (asked.said.empty())
        asked.reasons.emplace_back("it tells of no flash");
    if (versions.empty_entries > 0)
        asked.reasons.push_back("empty entries in its answer: " + std::to_string(versions.empty_entries));
}

void take_image(card &known, const image_reply &reply, unsigned asked_slot)
{
    const std::string of = asked_slot != known.module ? " of " + slot_text(asked_slot) : "";
    if (reply.image)
        known.source = reply.image->version;
    if (!known.source.empty())
        return;
    std::string why = "the image holds no version";
    if (!reply.image)
        why = reply.status != 0 ? agent_status_text(reply.status) : "the agent does not answer";
    known.reasons.push_back("no image version" + of + ": " + why);
}

void take_daemon(card &known, const request_answer &answer)
{
    if (answer.answered || answer.error == EOPNOTSUPP)
        return;
    known.reasons.push_back(answer.error == MTS_ERRNO_TIMED_OUT
                                ? "its daemon has not answered in " + std::to_string(DAEMON_LOOK_S) + " s"
                                : no_answer_text(answer.error));
}

// What the agents say, and whether the daemons answer, all at the same time. 0 when the serving one does, else why
// not.
int ask_agents(std::vector<card> &cards, unsigned serving_slot, unsigned timeout_s)
{
    std::map<image_place_and_card, std::size_t> images;
    std::vector<card_query> queries;
    for (const card &asked : cards)
        queries.emplace_back([node = asked.node()] { return ask_for_versions(node); });
    std::map<unsigned, std::size_t> daemons; // by module
    for (const card &asked : cards) {
        if (asked.module == serving_slot)
            continue;
        daemons[asked.module] = queries.size();
        queries.push_back(daemon_query(asked.node(), encode_module_version_request(asked.module),
                                       std::min(timeout_s, DAEMON_LOOK_S)));
    }
    const std::size_t serving_place = queries.size();
    queries.push_back(
        daemon_query(node_of_module(serving_slot), encode_module_version_request(serving_slot), timeout_s));
    for (const card &asked : cards) {
        const auto image = image_for(asked.module, serving_slot);
        if (!images.try_emplace(image, queries.size()).second)
            continue;
        queries.emplace_back(
            [image] { return request_image(image.first, {.card_id = image.second, .place = image_place::tree}); });
    }
    const std::vector<request_answer> answers = ask_all(queries);
    for (std::size_t k = 0; k < cards.size(); ++k) {
        card &known = cards[k];
        if (answers[k].answered && answers[k].status == 0)
            known.told = decode_versions(answers[k].payload);
        if (const auto daemon = daemons.find(known.module); known.told && daemon != daemons.end())
            take_daemon(known, answers[daemon->second]);
        if (known.told)
            take_image(known, image_reply_of(answers[images.at(image_for(known.module, serving_slot))]),
                       slot_that_unpacks_for(known.module, serving_slot).value_or(known.module));
    }
    const request_answer &serving = answers[serving_place];
    return serving.answered ? 0 : serving.error;
}

void report_flashes(card_report &report, const told_versions &told, version_facts facts)
{
    for (const told_flash_version &flash : told.flashes) {
        facts.being_programmed = facts.being_programmed || flash.has_writer;
        facts.not_verified = facts.not_verified || (flash.marked && !flash.is_spare);
        if (flash.instance == BIOS_FLASH_ALTERNATE && flash.marked)
            report.reasons.emplace_back(
                std::string("its alternate flash is not verified") +
                (flash.is_spare ? ": it has none to fall back on" : ", and it may be started from it"));
    }
    const bool has_primary = !told.flashes.empty() && told.flashes.front().instance != BIOS_FLASH_ALTERNATE;
    if (!has_primary)
        report.reasons.emplace_back("it has no flash");
    else if (const told_flash_version &primary = told.flashes.front(); !facts.being_programmed) {
        facts.flash = primary.version;
        if (primary.version.empty() && !primary.marked)
            report.reasons.emplace_back("its flash holds no version");
    }
    facts.running = told.running;
    if (told.started_from)
        report.started_from = flash_instance_name(*told.started_from);
    if (told.running.empty())
        report.reasons.emplace_back("which version it was started from is not known");
    if (told.started_from == BIOS_FLASH_ALTERNATE)
        report.reasons.emplace_back("it was started from its alternate flash");
    report.flashes.push_back({.label = has_primary ? "primary" : "", .facts = std::move(facts)});
}

card_report report_on(const card &known, bool being_programmed)
{
    card_report report{.module = known.module, .reasons = known.reasons};
    version_facts facts{.being_programmed = being_programmed, .reachable = known.reachable, .source = known.source};
    if (known.told) {
        report_flashes(report, *known.told, std::move(facts));
    } else {
        facts.confirmed = false;
        const std::size_t count = std::max<std::size_t>(known.said.size(), 1);
        for (std::size_t k = 0; k < count; ++k) {
            flash_report flash{.facts = facts};
            if (k < known.said.size()) {
                flash.label = known.said[k].label;
                flash.facts.flash = being_programmed ? "" : known.said[k].flash;
                flash.facts.running = known.said[k].running;
            }
            report.flashes.push_back(std::move(flash));
        }
    }
    for (flash_report &flash : report.flashes)
        flash.kind = judge(flash.facts);
    return report;
}

// In a process of its own. The payload says how the flash was programmed that has changed since; it is empty
// otherwise.
request_answer find_change(std::uint32_t node)
{
    const std::string how = how_changed_flash_was_programmed(node);
    return {.answered = true, .payload = {how.begin(), how.end()}};
}

} // namespace

void check_flashes(chassis_report &report)
{
    std::vector<card_query> queries;
    for (const card_report &card : report.cards)
        queries.emplace_back([node = node_of_module(card.module)] { return find_change(node); });
    const std::vector<request_answer> answers = ask_all(queries);
    for (std::size_t k = 0; k < answers.size(); ++k) {
        card_report &card = report.cards[k];
        if (answers[k].payload.empty() || card.flashes.empty())
            continue;
        card.flashes.front().facts.changed = true;
        card.flashes.front().kind = judge(card.flashes.front().facts);
        card.reasons.push_back(
            "its flash was changed since it was programmed (" +
            printable_text({reinterpret_cast<const char *>(answers[k].payload.data()), answers[k].payload.size()}) +
            ")");
    }
}

void check_event_logs(chassis_report &report)
{
    const auto modules = ask_for_modules().value_or(std::vector<chassis_module>());
    for (card_report &card : report.cards) {
        const std::uint32_t node = node_of_module(card.module);
        const auto facts = ask_for_card(node);
        for (const card_flash &flash : facts ? facts->flashes : std::vector<card_flash>()) {
            const auto head = ask_for_head(card.module, flash.instance, modules);
            const auto events = ask_for_events(node, flash.instance, 0);
            const auto told = ask_for_log_faults(node, flash.instance);
            if (!events)
                continue;
            for (const std::string &fault :
                 event_log_faults(*events, head, told.value_or(std::vector<told_log_fault>())))
                card.log_faults.push_back(std::string(flash_instance_name(flash.instance)) + " flash: " + fault);
        }
    }
}

chassis_report collect_versions(unsigned serving_slot, const std::vector<unsigned> &modules, unsigned timeout_s)
{
    std::vector<card> cards;
    cards.reserve(modules.size());
    for (const unsigned module : modules)
        cards.push_back({.module = module});

    const programming_locks before = find_programming();
    chassis_report report{.serving_slot = serving_slot};
    report.serving_error = ask_agents(cards, serving_slot, timeout_s);
    daemon_collection by_daemon(serving_slot, timeout_s, report.serving_error);
    for (card &known : cards) {
        if (!known.told)
            by_daemon.ask(known);
    }
    const programming_locks locks = find_programming();
    for (const card &known : cards) {
        report.cards.push_back(report_on(known, before.has(known.node()) || locks.has(known.node())));
        report.cards.back().gets_image = slot_that_unpacks_for(known.module, serving_slot).has_value();
    }
    return report;
}
