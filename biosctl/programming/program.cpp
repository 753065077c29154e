#include "program.h"

#include <algorithm>
#include <cstdio>
#include <unistd.h>
#include <utility>

#include "agent_messages.h"
#include "agent_result_text.h"
#include "agents.h"
#include "bios_results.h"
#include "card_groups.h"
#include "changed_flash.h"
#include "client.h"
#include "flash_proof.h"
#include "interrupt.h"
#include "inventory.h"
#include "lock_holders.h"
#include "orders.h"
#include "place_hints.h"
#include "program_report.h"
#include "program_wait.h"
#include "result_text.h"
#include "serving_slot.h"
#include "size_text.h"

namespace
{

// The daemon answers before it does any work. One that is busy for longer does not take the request afterwards: it
// says how long its sender waits.
constexpr unsigned REQUEST_WAIT_LIMIT_S = 30;

// Which module the card in the serving slot will program, and a word when it is not the one asked for.
program_subject subject_of(const program_options &options, unsigned slot)
{
    program_subject subject{options.request.module, options.request.module, slot};
    if (!slot_is_active(slot))
        subject.programmed_module = slot;
    else if (slot_programs_one_module_only(slot))
        subject.programmed_module = TARVIK_A_MODULE_NUM;
    if (subject.programmed_module == options.request.module)
        return subject;
    const char *why = slot_is_active(slot)
                          ? "the supervisor in it programs that module whatever it is asked for"
                          : "the card in it is not the active supervisor and programs its own flash";
    (void)std::fprintf(stderr, "biosctl: note: %s programs module %u, not %u: %s\n", slot_text(slot).c_str(),
                       subject.programmed_module, options.request.module, why);
    return subject;
}

// The first lock that the request needed and somebody else holds.
std::optional<lock_in_the_way> find_lock_in_the_way(const program_subject &subject)
{
    for (const unsigned module : {subject.serving_slot, subject.programmed_module}) {
        if (auto holder = find_lock_holder(node_of_module(module)); holder)
            return lock_in_the_way{module, std::move(*holder)};
    }
    return std::nullopt;
}

programming_result refused_result(const program_subject &subject, std::uint32_t status, unsigned instance)
{
    programming_result result{.subject = subject, .ending = programming_ending::refused, .code = status};
    if (status != BIOS_ERR_BUSY)
        return result;
    result.writer = find_flash_writer(subject.programmed_module, instance);
    if (!result.writer)
        result.writer = find_programming_process(subject.serving_slot);
    result.lock = find_lock_in_the_way(subject);
    if (!result.lock && !ask_for_card(node_of_module(subject.serving_slot)))
        result.silent_agent = subject.serving_slot;
    return result;
}

programming_result interrupted_before_request(const program_subject &subject)
{
    return not_asked(subject, failure(EXIT_INTERRUPTED,
                                      "module " + std::to_string(subject.programmed_module) +
                                          ": interrupted before it was asked for",
                                      "look at the cards with: biosctl show"));
}

programming_result interrupted_before_answer(const program_subject &subject)
{
    return no_answer(subject,
                     failure(EXIT_INTERRUPTED,
                             "interrupted before the answer came; the card may take the request yet and program",
                             "look at it with: biosctl watch " + std::to_string(subject.programmed_module)));
}

// The body names the module that is programmed: the daemon hands it on as it is, and sends it to the module that
// it names.
request_answer send_request(client_endpoint &endpoint, const program_subject &subject, program_options options)
{
    options.request.module = subject.programmed_module;
    return endpoint.request(node_of_module(subject.serving_slot), encode_programming_request(options.request),
                            std::min(REQUEST_WAIT_LIMIT_S, options.timeout_s.value_or(REQUEST_WAIT_LIMIT_S)));
}

// What is to be done, as far as it is known.
struct programming_plan {
    program_subject subject = {};
    wanted_image names = {};
    wanted_programming wanted = {};
};

std::string image_name(const program_subject &subject, const programming_request &request)
{
    if (!is_unpacked(subject))
        return "the image that lies ready in " + slot_text(subject.programmed_module);
    if (!request.image)
        return "the image tree of " + slot_text(subject.serving_slot);
    constexpr std::string_view FILE_SCHEME = "file://";
    return request.image->substr(request.image->starts_with(FILE_SCHEME) ? FILE_SCHEME.size() : 0);
}

outcome image_cannot_be_brought(const program_subject &subject)
{
    return failure(EXIT_USAGE_ERROR,
                   "module " + std::to_string(subject.programmed_module) +
                       ": --image cannot be brought there: its card programs the image that lies ready on it",
                   "leave --image away, or program a supervisor");
}

outcome no_image(const programming_plan &plan, const image_reply &reply)
{
    const std::string what = "module " + std::to_string(plan.subject.programmed_module) +
                             ": not begun: " + plan.names.name + ": " + reply.why_not;
    switch (reply.status) {
    case 0:
        return failure(EXIT_FAILED, what, card_agent_hint(std::to_string(slot_with_image(plan.subject))));
    case AGENT_ERR_IMAGE_URI:
    case AGENT_ERR_IMAGE_FILE:
        return failure(EXIT_NOT_FOUND, what,
                       is_unpacked(plan.subject) ? "look for the file on the card, or name another image"
                                                 : "put the image on the card as /bootflash/.tmpbios.bin");
    case AGENT_ERR_IMAGE_SPACE:
        return failure(EXIT_FAILED, what, agent_status_step(AGENT_ERR_NO_SPACE));
    default:
        return failure(EXIT_FAILED, what, "use an image made for this type of card");
    }
}

std::string too_full_text(unsigned slot, const char *for_what, std::uint64_t missing_bytes)
{
    return "/bootflash of " + slot_text(slot) + " is too full " + for_what + ": " + size_text(missing_bytes) +
           " are missing";
}

// What a programming would fail for that has to unpack its image first; empty when there is room for it.
std::string lack_of_room(const program_subject &subject, const told_image &image)
{
    if (image.missing_bytes == 0 || !is_unpacked(subject))
        return {};
    return too_full_text(subject.serving_slot, "to unpack it", image.missing_bytes);
}

outcome no_room(const programming_plan &plan, unsigned full_slot, const std::string &lack)
{
    return failure(EXIT_FAILED,
                   "module " + std::to_string(plan.subject.programmed_module) + ": not begun: " + plan.names.name +
                       ": " + lack,
                   "remove files from /bootflash of " + slot_text(full_slot));
}

// Why nothing was programmed, as far as the card can tell afterwards; none when it says nothing.
std::optional<std::string> cause_of_nothing(const program_subject &subject, const programming_request &request)
{
    const image_reply found = find_asked_image(subject, request);
    if (found.image)
        return lack_of_room(subject, *found.image);
    return found.status != 0 ? std::optional(found.why_not) : std::nullopt;
}

programming_result with_names(programming_result result, const programming_plan &plan)
{
    result.image = plan.names;
    return result;
}

// Of what the agent of the card has answered to an order.
programming_result not_ordered(const programming_plan &plan, const order_judgement &judgement)
{
    const program_subject &subject = plan.subject;
    const std::optional<std::uint32_t> status = judgement.status;
    if (judgement.missing_bytes != 0)
        return not_asked(subject, no_room(plan, subject.programmed_module,
                                          too_full_text(subject.programmed_module, "for a copy of it",
                                                        judgement.missing_bytes)));
    if (!status)
        return no_answer(subject, failure(EXIT_FAILED,
                                          "module " + std::to_string(subject.programmed_module) +
                                              ": not begun: the agent of " + slot_text(subject.programmed_module) +
                                              " does not answer",
                                          card_agent_hint(std::to_string(subject.programmed_module))));
    if (*status != AGENT_ERR_ORDER_LIVE && *status != AGENT_ERR_PROGRAMMING) {
        if ((*status & ~0xffU) == BIOS_RESULT_PREFIX)
            return refused_result(subject, *status, plan.wanted.instance);
        return not_asked(subject, failure(EXIT_FAILED,
                                          "module " + std::to_string(subject.programmed_module) +
                                              ": not begun: no order was taken: " + agent_status_text(*status),
                                          agent_status_step(*status)));
    }
    programming_result result = refused_result(subject, BIOS_ERR_BUSY, plan.wanted.instance);
    result.order = ask_for_order(plan.wanted.node, plan.wanted.instance);
    if (result.order && !result.order->is_live())
        result.order.reset();
    return result;
}

// What the agent of the programmed card tells of the work on its flash, and its order.
std::string work_at(const wanted_programming &wanted)
{
    std::string text;
    if (const auto order = ask_for_order(wanted.node, wanted.instance); order)
        text = flash_order_state_name(order->state);
    const auto card = ask_for_card(wanted.node);
    if (!card)
        return text;
    for (const card_flash &flash : card->flashes) {
        if (flash.instance == wanted.instance && flash.activity.last)
            text += " " + flash_progress_format(*flash.activity.last);
    }
    return text;
}

std::optional<unsigned> find_silent_daemon(const program_subject &subject)
{
    for (const unsigned slot : {subject.programmed_module, subject.serving_slot}) {
        if (const auto card = ask_for_card(node_of_module(slot)); card && card->is_silent)
            return slot;
    }
    return std::nullopt;
}

// Sends the request and follows the programming to its end. The order is ended in any case.
programming_result carry_out(const program_options &options, const programming_plan &plan,
                             const placed_order &order, int fd, const last_words_text &last_words)
{
    const program_subject &subject = plan.subject;
    const std::uint32_t node = node_of_module(subject.serving_slot);
    client_endpoint endpoint;
    if (!endpoint.bound() || !listen_for_end_notices(endpoint))
        return no_answer(subject, no_endpoint_failure());
    const daemon_probe daemon(node);
    const request_answer answer = [&] {
        const interrupt_ends_process guard(fd, last_words(interrupted_before_answer(subject)));
        return send_request(endpoint, subject, options);
    }();
    if (!answer.answered)
        return no_answer(subject, no_answer_failure(subject.serving_slot, answer.error));
    if (answer.status != BIOS_OK) {
        order.end(answer.status);
        return refused_result(subject, answer.status, options.request.type);
    }
    progress_view view(STDERR_FILENO, "module " + std::to_string(subject.programmed_module));
    const programming_end end = watch_programming(
        endpoint, daemon, {node, subject.programmed_module}, options.timeout_s,
        [&] { return work_at(plan.wanted); }, view);
    const bool has_ended = end.how == watch_end::reported || end.how == watch_end::vanished;
    if (has_ended)
        order.end(end.result);
    const bool is_left = has_ended || end.how == watch_end::stalled;
    programming_result result = result_of(
        subject, end, is_left ? prove(subject, options.request.type, plan.wanted.image, &order) : flash_proof());
    if (is_left && !result.is_proved())
        result.writer = find_flash_writer(subject.programmed_module, options.request.type);
    if (result.ending == programming_ending::nothing_programmed)
        result.cause = cause_of_nothing(subject, options.request);
    if (end.how == watch_end::stalled)
        result.silent_daemon = find_silent_daemon(subject);
    return result;
}

// Whether the card needs a flash beside the wanted one, and this is half written: until the wanted one is verified.
bool needs_half_written_flash(const wanted_programming &wanted)
{
    const auto card = ask_for_card(wanted.node);
    return card && std::ranges::any_of(card->flashes, [&wanted](const card_flash &flash) {
               return flash.instance != wanted.instance && flash.activity.marked && !flash.is_spare;
           });
}

// Whether the wanted image, though it is there, is to be verified by a programming, which changes nothing: somebody
// has written it without an order, over what was verified last, or the card has nothing else to start from.
bool has_to_be_verified(const wanted_programming &wanted)
{
    return !how_changed_flash_was_programmed(wanted.node).empty() || needs_half_written_flash(wanted);
}

} // namespace

programming_result program_module(const program_options &options, int fd, const last_words_text &last_words)
{
    const serving_slot serving = find_serving_slot(options.request.module, options.via);
    if (!serving.slot)
        return no_answer({.asked_module = options.request.module}, serving.problem);
    programming_plan plan{.subject = subject_of(options, *serving.slot)};
    if (options.request.image && !is_unpacked(plan.subject))
        return not_asked(plan.subject, image_cannot_be_brought(plan.subject));
    plan.names.name = image_name(plan.subject, options.request);
    plan.wanted = {.node = node_of_module(plan.subject.programmed_module),
                   .instance = options.request.type,
                   .image_name = plan.names.name,
                   .forced = options.forced,
                   .is_copied = is_copied(plan.subject)};

    const unsigned instance = options.request.type;
    flash_proof before;
    {
        const interrupt_ends_process guard(fd, last_words(interrupted_before_request(plan.subject)));
        const image_reply asked = find_asked_image(plan.subject, options.request);
        if (!asked.image)
            return not_asked(plan.subject, no_image(plan, asked));
        plan.wanted.image = *asked.image;
        plan.names.version = asked.image->version;
        plan.names.old_version = ask_for_version(plan.wanted.node, instance).value_or("");
        before = prove(plan.subject, instance, *asked.image, nullptr);
    }
    const bool is_there = before.finding == flash_finding::holds_image;
    const programming_result already_there =
        with_names({.subject = plan.subject, .ending = programming_ending::already_there, .proof = before}, plan);
    if (is_there && (options.dry_run || !has_to_be_verified(plan.wanted)))
        return already_there;
    if (const std::string lack = lack_of_room(plan.subject, plan.wanted.image); !lack.empty())
        return not_asked(plan.subject, no_room(plan, plan.subject.serving_slot, lack));
    if (options.dry_run) {
        const order_judgement judgement = judge_order(plan.wanted);
        if (!judgement.is_good())
            return with_names(not_ordered(plan, judgement), plan);
        return with_names({.subject = plan.subject, .ending = programming_ending::would_program}, plan);
    }
    const order_reply ordered = place_order(plan.wanted);
    if (!ordered.order)
        return with_names(not_ordered(plan, ordered.judgement), plan);
    const programming_result done = with_names(carry_out(options, plan, *ordered.order, fd, last_words), plan);
    return is_there && done.is_proved() ? already_there : done;
}

outcome run_program(const program_options &options, bool json)
{
    catch_interrupt();
    return report_programming(
        program_module(options, json ? STDOUT_FILENO : STDERR_FILENO, [json](const programming_result &result) {
            return failure_text(report_programming(result), json);
        }));
}
