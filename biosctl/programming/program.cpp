#include "program.h"

#include <algorithm>
#include <cstdio>
#include <unistd.h>
#include <utility>

#include "agents.h"
#include "bios_results.h"
#include "card_groups.h"
#include "client.h"
#include "flash_proof.h"
#include "interrupt.h"
#include "inventory.h"
#include "lock_holders.h"
#include "program_report.h"
#include "program_wait.h"
#include "serving_slot.h"

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

void warn_about_image(const program_options &options, unsigned slot)
{
    if (!options.request.image || !slot_is_active(slot))
        return;
    if (options.request.image->starts_with("bootflash:") || options.request.image->starts_with("file:///"))
        return;
    (void)std::fprintf(stderr,
                       "biosctl: note: if %s cannot map the image URI '%s' to a path it programs the BIOS of "
                       "its image tree instead\n",
                       slot_text(slot).c_str(), options.request.image->c_str());
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

} // namespace

outcome run_program(const program_options &options, bool json)
{
    catch_interrupt();
    return report_programming(
        program_module(options, json ? STDOUT_FILENO : STDERR_FILENO, [json](const programming_result &result) {
            return failure_text(report_programming(result), json);
        }));
}

programming_result program_module(const program_options &options, int fd, const last_words_text &last_words)
{
    const serving_slot serving = find_serving_slot(options.request.module, options.via);
    if (!serving.slot)
        return no_answer({.asked_module = options.request.module}, serving.problem);
    const unsigned slot = *serving.slot;
    const std::uint32_t node = node_of_module(slot);
    const program_subject subject = subject_of(options, slot);
    warn_about_image(options, slot);

    client_endpoint endpoint;
    if (!endpoint.bound() || !listen_for_end_notices(endpoint))
        return no_answer(subject, no_endpoint_failure());
    const daemon_probe daemon(node);
    const image_reply asked = [&] {
        const interrupt_ends_process guard(fd, last_words(interrupted_before_request(subject)));
        return find_asked_image(subject, options.request);
    }();
    const request_answer answer = [&] {
        const interrupt_ends_process guard(fd, last_words(interrupted_before_answer(subject)));
        return send_request(endpoint, subject, options);
    }();
    if (!answer.answered)
        return no_answer(subject, no_answer_failure(slot, answer.error));
    if (answer.status != BIOS_OK)
        return refused_result(subject, answer.status, options.request.type);

    progress_view view(STDERR_FILENO, "module " + std::to_string(subject.programmed_module));
    const programming_end end =
        watch_programming(endpoint, daemon, {node, subject.programmed_module}, options.timeout_s, view);
    const bool has_ended = end.how == watch_end::reported || end.how == watch_end::vanished;
    programming_result result =
        result_of(subject, end, has_ended ? prove(subject, options.request.type, asked) : flash_proof());
    if (has_ended && !result.is_proved())
        result.writer = find_flash_writer(subject.programmed_module, options.request.type);
    return result;
}
