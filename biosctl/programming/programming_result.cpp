#include "programming_result.h"

#include <utility>

#include "bios_results.h"
#include "result_text.h"
#include "verdict.h"

namespace
{

// Of a programming that ended with code 0 after work on the flash was heard of.
programming_ending ending_by_proof(bool heard_verified, flash_finding finding)
{
    if (heard_verified && finding == flash_finding::holds_image)
        return programming_ending::verified;
    const bool is_open = finding == flash_finding::unknown || finding == flash_finding::not_recorded;
    return heard_verified && is_open ? programming_ending::unconfirmed : programming_ending::not_verified;
}

programming_ending ending_by_code(const programming_end &end, flash_finding finding)
{
    if (end.result != BIOS_OK)
        return describe_result(end.result).exit == EXIT_NOTHING_TO_DO ? programming_ending::nothing_to_do
                                                                      : programming_ending::failed;
    // An erase of the whole flash reports no progress.
    const bool is_begun = end.progress.seen || finding == flash_finding::half_written;
    return is_begun ? ending_by_proof(end.progress.verified(), finding) : programming_ending::nothing_programmed;
}

programming_ending ending_of(const programming_end &end, flash_finding finding)
{
    switch (end.how) {
    case watch_end::reported:
        return ending_by_code(end, finding);
    case watch_end::vanished:
        return programming_ending::daemon_ended;
    case watch_end::interrupted:
        return programming_ending::interrupted;
    case watch_end::stalled:
        return programming_ending::stalled;
    case watch_end::timed_out:
        break;
    }
    return programming_ending::timed_out;
}

} // namespace

const char *ending_name(programming_ending ending)
{
    switch (ending) {
    case programming_ending::not_tried:
        return "not tried";
    case programming_ending::not_asked:
        return "not asked";
    case programming_ending::no_answer:
        return "no answer";
    case programming_ending::refused:
        return "refused";
    case programming_ending::verified:
        return "programmed and verified";
    case programming_ending::not_verified:
        return "not verified";
    case programming_ending::unconfirmed:
        return "not confirmed";
    case programming_ending::nothing_programmed:
        return "nothing was programmed";
    case programming_ending::nothing_to_do:
    case programming_ending::already_there:
        return "nothing to do";
    case programming_ending::would_program:
        return "would be programmed";
    case programming_ending::failed:
        return "failed";
    case programming_ending::daemon_ended:
        return "daemon ended";
    case programming_ending::interrupted:
    case programming_ending::timed_out:
        return "goes on";
    case programming_ending::stalled:
        return "no progress";
    case programming_ending::other_version:
        break;
    }
    return "other version";
}

bool programming_result::has_code() const
{
    switch (ending) {
    case programming_ending::refused:
    case programming_ending::verified:
    case programming_ending::not_verified:
    case programming_ending::unconfirmed:
    case programming_ending::nothing_programmed:
    case programming_ending::nothing_to_do:
    case programming_ending::failed:
    case programming_ending::other_version:
        return true;
    default:
        return false;
    }
}

programming_result result_of(const program_subject &subject, const programming_end &end, flash_proof proof)
{
    return {.subject = subject,
            .ending = ending_of(end, proof.finding),
            .code = end.how == watch_end::reported ? end.result : BIOS_OK,
            .progress = end.progress,
            .elapsed_s = end.elapsed_s,
            .proof = std::move(proof)};
}

programming_result not_asked(const program_subject &subject, outcome why)
{
    return {.subject = subject, .ending = programming_ending::not_asked, .obstacle = std::move(why)};
}

programming_result no_answer(const program_subject &subject, outcome why)
{
    return {.subject = subject, .ending = programming_ending::no_answer, .obstacle = std::move(why)};
}

programming_result with_version(programming_result result, version_check version)
{
    const auto wanted = parse_version(version.expected);
    const auto held = parse_version(version.found);
    if (!wanted || !held || wanted->number != held->number)
        result.ending = programming_ending::other_version;
    result.version = std::move(version);
    return result;
}

exit_code exit_of(const programming_result &result)
{
    switch (result.ending) {
    case programming_ending::not_asked:
    case programming_ending::no_answer:
        return result.obstacle ? result.obstacle->exit : EXIT_FAILED;
    case programming_ending::verified:
    case programming_ending::would_program:
        return EXIT_DONE;
    case programming_ending::already_there:
        return EXIT_NOTHING_TO_DO;
    case programming_ending::refused:
    case programming_ending::nothing_to_do:
    case programming_ending::failed:
        return failure_exit(result.code);
    case programming_ending::interrupted:
        return EXIT_INTERRUPTED;
    default:
        return EXIT_FAILED;
    }
}

bool is_undone(const programming_result &result)
{
    if (!result.tried())
        return true;
    const exit_code exit = exit_of(result);
    return exit != EXIT_DONE && exit != EXIT_NOTHING_TO_DO;
}
