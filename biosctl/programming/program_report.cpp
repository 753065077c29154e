#include "program_report.h"

#include <string>
#include <string_view>
#include <vector>

#include "bios_refusals.h"
#include "bios_results.h"
#include "lock_holders.h"
#include "place_hints.h"
#include "result_text.h"

namespace
{

constexpr styled_literal VERIFIED{"programmed and verified", text_meaning::well};
constexpr styled_literal NOT_PROGRAMMED{"not programmed", text_meaning::wrong};
constexpr styled_literal PROGRAMMING_FAILED{"programming failed", text_meaning::wrong};
constexpr styled_literal NOTHING_TO_DO{"nothing to do"};

const styled_text FLASH_IN_WORK = styled_text("being programmed", text_meaning::to_do) + ": " +
                                  styled_text("do not reboot", text_meaning::wrong) + " the card";

// What is said of an ending, for people and for programs alike.
struct explanation {
    styled_text headline = {};
    std::vector<std::string> likely = {}; // reasons
    styled_text flash = {};               // its state; empty: nothing is said of it
    std::string next = {};
};

std::string module_text(const programming_result &result)
{
    return "module " + std::to_string(result.subject.programmed_module);
}

// How far the messages say it came.
std::string seen_text(const programming_result &result)
{
    if (!result.progress.seen)
        return "no progress was reported";
    return "last seen " + std::string(phase_text(result.progress.phase)) + " at " +
           std::to_string(result.progress.percent) + "%, attempt " + std::to_string(result.progress.attempt);
}

std::string version_or(const std::string &version, const char *none)
{
    return version.empty() ? none : version;
}

// ", IMAGE: v2.5.0(05/06/24), was v1.2.0(05/06/24)"; empty when no image is known.
std::string image_text(const wanted_image &image)
{
    if (image.name.empty())
        return "";
    return ", " + image.name + ": " + version_or(image.version, "no version") + ", was " +
           version_or(image.old_version, "without a version");
}

explanation explain_already_there(const programming_result &result)
{
    return {.headline = module_text(result) + ": already in the flash, nothing to do: " + result.image.name + ", " +
                        version_or(result.image.version, "no version"),
            .flash = VERIFIED,
            .next = "nothing to do"};
}

explanation explain_would_program(const programming_result &result)
{
    return {.headline = module_text(result) + ": would be programmed (--dry-run)" + image_text(result.image),
            .flash = "not touched",
            .next = "leave --dry-run away to program it"};
}

explanation explain_verified(const programming_result &result)
{
    return {.headline = module_text(result) + ": " + styled_text(VERIFIED) + image_text(result.image) +
                        " (result " + code_text(BIOS_OK) + ", " + elapsed_text(result.elapsed_s.value_or(0)) + ")",
            .flash = VERIFIED,
            .next = "reboot the card for the new BIOS to take effect"};
}

// Heard to be verified, and found otherwise.
explanation explain_disproved(const programming_result &result)
{
    const char *found = " and a verified flash were reported, but the flash does not hold the image asked for";
    if (result.proof.finding == flash_finding::half_written)
        found = " and a verified flash were reported, but the flash is marked as half written";
    return {.headline =
                module_text(result) + ": " + styled_text(NOT_PROGRAMMED) + ": result " + code_text(BIOS_OK) + found,
            .likely = {"another image was programmed, or another programming has begun since",
                       "the reports were not the card's"},
            .flash = FLASH_UNKNOWN,
            .next = PROGRAM_AGAIN.text};
}

explanation explain_unverified(const programming_result &result)
{
    if (result.progress.verified())
        return explain_disproved(result);
    return {.headline = module_text(result) + ": " + styled_text(NOT_PROGRAMMED) +
                        ": the programming ended without a result (" + code_text(BIOS_OK) +
                        ") before the flash was verified (" + seen_text(result) + ")",
            .likely = {"the programming process was killed or ended early"},
            .flash = FLASH_CORRUPTED,
            .next = PROGRAM_AGAIN.text};
}

explanation explain_unconfirmed(const programming_result &result)
{
    return {.headline = module_text(result) + ": " + styled_text("not confirmed", text_meaning::wrong) +
                        ": result " + code_text(BIOS_OK) + " and a verified flash were reported, but " +
                        result.proof.why,
            .flash = FLASH_UNKNOWN,
            .next = "look at the card's version before a reboot (biosctl show " +
                    std::to_string(result.subject.programmed_module) + ")"};
}

// Reasons that nobody has looked for.
std::vector<std::string> likely_reasons(const programming_result &result)
{
    if (result.cause && !result.cause->empty())
        return {};
    std::vector<std::string> reasons{"the programming process was killed before it reported progress"};
    if (!result.cause)
        reasons.emplace_back("the image could not be unpacked, or holds no BIOS for this type of card");
    return reasons;
}

explanation explain_nothing_programmed(const programming_result &result)
{
    const std::string cause = result.cause.value_or("");
    const std::string headline = module_text(result) + ": nothing was programmed" +
                                 (cause.empty() ? "" : ": " + cause) + " (result " + code_text(BIOS_OK) +
                                 ", and no flash was ";
    const std::string place =
        place_in_brackets(look_at::log_and_states, std::to_string(result.subject.programmed_module));
    if (!result.proof.is_begun)
        return {.headline = headline + "begun)",
                .flash = "not touched",
                .next =
                    "look at the card's log for what has ended the programming" + place + ", then program again"};
    return {.headline = headline + "reported as verified)",
            .likely = likely_reasons(result),
            .flash = "not touched, unless the programming process was killed while it erased",
            .next = "look at the card's log and state before a reboot" + place};
}

// The flash after a result other than 0. What the code says is about the last attempt; the order's record tells
// whether there was a first one, and the progress whether an attempt, or a step before it, has changed the flash.
styled_text flash_after_failure(const result_description &described, const programming_result &result)
{
    if (result.is_proved())
        return styled_text(VERIFIED) + " before that; the new BIOS is in it";
    if (!result.proof.is_begun && !result.progress.seen)
        return "not touched";
    // The marker is there from before the first change until the flash was verified: another image without it is
    // what the flash held before.
    if (result.proof.finding == flash_finding::holds_other)
        return described.flash.plain() == FLASH_CORRUPTED.text ? "not touched" : described.flash;
    const bool changed = result.proof.finding == flash_finding::half_written ||
                         (result.progress.seen && (result.progress.percent > 0 || result.progress.attempt > 1));
    return changed ? FLASH_CORRUPTED : described.flash;
}

explanation explain_by_code(const programming_result &result)
{
    const result_description described = describe_result(result.code);
    const styled_text what =
        result.ending == programming_ending::nothing_to_do ? NOTHING_TO_DO : PROGRAMMING_FAILED;
    return {.headline = module_text(result) + ": " + what + ": " + result_sentence(described),
            .flash = flash_after_failure(described, result),
            .next = described.next};
}

explanation explain_daemon_ended(const programming_result &result)
{
    const styled_literal &left = result.progress.seen ? FLASH_CORRUPTED : FLASH_UNKNOWN;
    return {.headline = module_text(result) + ": the daemon of slot " +
                        std::to_string(result.subject.serving_slot) + " ended before it reported a result (" +
                        seen_text(result) + ")",
            .flash = result.is_proved() ? VERIFIED : left,
            .next = "look at the card's state" + place_in_brackets(look_at::states) +
                    (result.is_proved() ? "" : ", then program it again before a reboot")};
}

// biosctl looks away and the card works on.
explanation explain_going_on(const programming_result &result)
{
    const char *why =
        result.ending == programming_ending::interrupted ? "interrupted" : "no result within the time given";
    return {.headline = module_text(result) + ": " + why + "; the programming goes on in the card (" +
                        seen_text(result) + ")",
            .flash = FLASH_IN_WORK,
            .next = "look at it again with: biosctl watch " + std::to_string(result.subject.programmed_module)};
}

// The flash of a programming that nobody writes and that has not ended.
styled_text flash_left_alone(const programming_result &result)
{
    if (result.is_proved())
        return VERIFIED;
    return result.proof.finding == flash_finding::half_written ? FLASH_CORRUPTED : FLASH_UNKNOWN;
}

explanation explain_stalled(const programming_result &result)
{
    explanation told{.headline = module_text(result) + ": no progress for " + std::to_string(PROGRESS_PATIENCE_S) +
                                 " s, and no result (" + seen_text(result) + ")",
                     .flash = flash_left_alone(result),
                     .next = "look at it again with: biosctl watch " +
                             std::to_string(result.subject.programmed_module)};
    if (result.silent_daemon)
        told.likely = {"the daemon of " + slot_text(*result.silent_daemon) + " was stopped or hangs"};
    return told;
}

explanation explain_other_version(const programming_result &result)
{
    const version_check &version = *result.version;
    return {.headline = module_text(result) + ": " + styled_text(VERIFIED) + ", but its flash " +
                        (version.found.empty() ? "tells no version" : "holds " + version.found) + " and not " +
                        version.expected + ", the version that ships for it",
            .next = "compare the image trees of the supervisors (biosctl source --via SLOT)"};
}

bool is_explained_by_code(programming_ending ending)
{
    return ending == programming_ending::failed || ending == programming_ending::nothing_to_do;
}

explanation explain_ending(const programming_result &result)
{
    switch (result.ending) {
    case programming_ending::verified:
        return explain_verified(result);
    case programming_ending::not_verified:
        return explain_unverified(result);
    case programming_ending::unconfirmed:
        return explain_unconfirmed(result);
    case programming_ending::already_there:
        return explain_already_there(result);
    case programming_ending::would_program:
        return explain_would_program(result);
    case programming_ending::nothing_programmed:
        return explain_nothing_programmed(result);
    case programming_ending::daemon_ended:
        return explain_daemon_ended(result);
    case programming_ending::interrupted:
    case programming_ending::timed_out:
        return explain_going_on(result);
    case programming_ending::stalled:
        return explain_stalled(result);
    case programming_ending::other_version:
        return explain_other_version(result);
    default:
        return explain_by_code(result);
    }
}

// Of a programming that was watched. What still writes the flash decides on its state.
explanation explain(const programming_result &result)
{
    explanation told = explain_ending(result);
    if (!result.writer)
        return told;
    told.likely.clear();
    told.flash = FLASH_IN_WORK;
    told.next = "wait until that process has ended, then look at the flash: biosctl watch " +
                std::to_string(result.writer->slot);
    return told;
}

// "ann@console has ordered v2.5.0(05/06/24) at 2026-01-31T23:59:59Z"
std::string orderer_text(const flash_order &order)
{
    const std::string who = order.user.empty() ? "another client" : order.user + "@" + order.host;
    return who + " has ordered " + version_or(order.version, "an image without a version") + " at " +
           order.ordered_at;
}

// An order is refused by the card whose flash is meant, a request by the daemon that was asked.
unsigned refusing_slot(const programming_result &result)
{
    const bool is_order = result.order || bios_is_refusal(result.code);
    return is_order ? result.subject.programmed_module : result.subject.serving_slot;
}

outcome refused_outcome(const programming_result &result)
{
    outcome refused = failure_by_code(
        module_text(result) + ": " + slot_text(refusing_slot(result)) + " refused to program", result.code);
    refused.json["outcome"] = ending_name(result.ending);
    if (result.silent_agent)
        refused.hints.push_back({"likely", "the agent of " + slot_text(*result.silent_agent) +
                                               " does not answer, and without it no module lock can be had"});
    if (result.writer) {
        refused.hints.push_back({"writer", writer_text(*result.writer)});
        refused.json["writer"] = writer_text(*result.writer);
    }
    if (result.order) {
        const std::string orderer = orderer_text(*result.order);
        refused.hints.push_back({"order", orderer});
        refused.json["order"] = orderer;
    }
    if (!result.lock)
        return refused;
    const std::string holder = holder_text(result.lock->holder);
    refused.hints.push_back({"lock", "module " + std::to_string(result.lock->module) + " is " + holder});
    if (!result.lock->holder.user.empty()) { // no programming whose end could be waited for
        const std::string next = "wait until it is free; whoever has locked it frees it with: biosctl unlock " +
                                 std::to_string(result.lock->module);
        for (hint &line : refused.hints) {
            if (std::string_view(line.label) == "next")
                line.text = next;
        }
        refused.json["next"] = next;
    }
    refused.json["locked_module"] = result.lock->module;
    refused.json["holder"] = holder;
    return refused;
}

std::vector<hint> hints_of(const programming_result &result, const explanation &told)
{
    const bool is_in_headline = result.ending == programming_ending::verified ||
                                result.ending == programming_ending::already_there ||
                                result.ending == programming_ending::would_program;
    std::vector<hint> hints;
    for (const std::string &reason : told.likely)
        hints.push_back({"likely", reason});
    if (result.writer)
        hints.push_back({"writer", writer_text(*result.writer)});
    if (!told.flash.empty() && !is_in_headline)
        hints.push_back({"flash", told.flash});
    if (result.ending != programming_ending::already_there)
        hints.push_back({"next", told.next});
    return hints;
}

void add_watched_members(nlohmann::ordered_json &object, const programming_result &result)
{
    object["module"] = result.subject.asked_module;
    object["programmed_module"] = result.subject.programmed_module;
    object["serving_slot"] = result.subject.serving_slot;
    object["image"] = text_or_null(result.image.name);
    object["version"] = text_or_null(result.image.version);
    object["old_version"] = text_or_null(result.image.old_version);
    object["verified"] = result.is_proved();
    object["elapsed_s"] = result.elapsed_s.value_or(0);
    if (!result.progress.seen)
        return;
    object["percent"] = result.progress.percent;
    object["attempt"] = result.progress.attempt;
}

void add_explanation(nlohmann::ordered_json &object, const programming_result &result, const explanation &told)
{
    if (result.writer)
        object["writer"] = writer_text(*result.writer);
    if (is_explained_by_code(result.ending)) {
        object.update(json_of(describe_result(result.code)));
        object["flash"] = told.flash.plain();
        object["next"] = told.next;
        object["error"] = told.headline.plain();
        return;
    }
    if (result.has_code())
        object["result"] = code_text(result.code);
    if (exit_of(result) != EXIT_DONE && exit_of(result) != EXIT_NOTHING_TO_DO)
        object["error"] = told.headline.plain();
    if (!told.likely.empty())
        object["likely_reasons"] = told.likely;
    object["flash"] = told.flash.plain();
    object["next"] = told.next;
}

void add_other_version(nlohmann::ordered_json &object, const programming_result &result, const explanation &told)
{
    object["error"] = told.headline.plain();
    object["next"] = told.next;
    object["outcome"] = ending_name(result.ending);
    add_watched_members(object, result);
    object["result"] = code_text(result.code);
    object["flash"] = VERIFIED.text;
}

void add_watched_programming(nlohmann::ordered_json &object, const programming_result &result)
{
    const explanation told = explain(result);
    if (result.ending == programming_ending::other_version) {
        add_other_version(object, result, told);
    } else {
        add_watched_members(object, result);
        object["outcome"] = ending_name(result.ending);
        add_explanation(object, result, told);
    }
    if (result.version)
        object["flash_version"] = text_or_null(result.version->found);
}

} // namespace

outcome report_programming(const programming_result &result)
{
    if (result.obstacle)
        return *result.obstacle;
    if (result.ending == programming_ending::refused)
        return refused_outcome(result);
    const explanation told = explain(result);
    outcome end{exit_of(result), told.headline, hints_of(result, told), {{"command", "program"}}};
    add_watched_programming(end.json, result);
    return end;
}

void add_programming_members(nlohmann::ordered_json &object, const programming_result &result)
{
    if (result.obstacle)
        object.update(result.obstacle->json);
    else if (result.ending == programming_ending::refused)
        object.update(refused_outcome(result).json);
    else
        add_watched_programming(object, result);
}
