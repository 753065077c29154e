// The texts about the end of a programming. Result 0 alone is no success: a programming process that was killed,
// an image that held nothing for this card and a flash instance that the card does not have end with it too.
#include "program_report.h"

#include "bios_results.h"

namespace
{

constexpr const char *VERIFIED = "programmed and verified";
constexpr const char *CORRUPTED = "may be corrupted: do not reboot the card";

std::string module_text(const program_subject &subject)
{
    return "module " + std::to_string(subject.programmed_module);
}

// How far the messages say it came; empty when none came.
std::string seen_text(const programming_end &end)
{
    if (!end.progress.seen)
        return "no progress was reported";
    return "last seen " + std::string(phase_text(end.progress.phase)) + " at " +
           std::to_string(end.progress.percent) + "%, attempt " + std::to_string(end.progress.attempt);
}

nlohmann::ordered_json json_head(const program_subject &subject, const programming_end &end)
{
    nlohmann::ordered_json json{{"command", "program"},
                                {"module", subject.asked_module},
                                {"programmed_module", subject.programmed_module},
                                {"serving_slot", subject.serving_slot},
                                {"verified", end.verified()},
                                {"elapsed_s", end.elapsed_s}};
    if (end.progress.seen) {
        json["percent"] = end.progress.percent;
        json["attempt"] = end.progress.attempt;
    }
    return json;
}

outcome report_verified(const program_subject &subject, const programming_end &end)
{
    const std::string next = "reboot the card for the new BIOS to take effect";
    outcome told{EXIT_DONE,
                 module_text(subject) + ": " + VERIFIED + " (result " + code_text(BIOS_OK) + ", " +
                     elapsed_text(end.elapsed_s) + ")",
                 {{"next", next}},
                 json_head(subject, end)};
    told.json["outcome"] = VERIFIED;
    told.json["result"] = code_text(BIOS_OK);
    told.json["flash"] = VERIFIED;
    told.json["next"] = next;
    return told;
}

// Result 0 and no verified flash, though work on the flash had begun.
outcome report_unverified(const program_subject &subject, const programming_end &end)
{
    const std::string what = module_text(subject) + ": not programmed: the programming ended with result " +
                             code_text(BIOS_OK) + " before the flash was verified (" + seen_text(end) + ")";
    const std::string reason = "the programming process was killed or ended early";
    const std::string next = "program the card again; reboot only after that has succeeded";
    outcome told{
        EXIT_FAILED, what, {{"likely", reason}, {"flash", CORRUPTED}, {"next", next}}, json_head(subject, end)};
    told.json["outcome"] = "not verified";
    told.json["result"] = code_text(BIOS_OK);
    told.json["error"] = what;
    told.json["likely_reasons"] = nlohmann::ordered_json::array({reason});
    told.json["flash"] = CORRUPTED;
    told.json["next"] = next;
    return told;
}

// Result 0 and no progress at all.
outcome report_nothing_programmed(const program_subject &subject, const programming_end &end)
{
    const std::string what = module_text(subject) + ": nothing was programmed (result " + code_text(BIOS_OK) +
                             ", and no flash was reported as verified)";
    const std::vector<std::string> reasons{
        "the image, or the image tree, holds no BIOS for this type of card, or it could not be unpacked",
        "the card has no flash instance of the number that --type gave",
        "the programming process was killed before it reported progress",
    };
    const std::string flash = "not touched, unless the programming process was killed while it erased";
    const std::string next = "look at the card's log and state before a reboot (chassis log " +
                             std::to_string(subject.programmed_module) + ", chassis status)";
    outcome told{.exit = EXIT_FAILED, .headline = what, .json = json_head(subject, end)};
    for (const std::string &reason : reasons)
        told.hints.push_back({"likely", reason});
    told.hints.push_back({"flash", flash});
    told.hints.push_back({"next", next});
    told.json["outcome"] = "nothing was programmed";
    told.json["result"] = code_text(BIOS_OK);
    told.json["error"] = what;
    told.json["likely_reasons"] = reasons;
    told.json["flash"] = flash;
    told.json["next"] = next;
    return told;
}

// The flash after a result other than 0. What the code says is about the last attempt; the progress tells whether
// an attempt before it, or a step before it, had changed the flash already.
std::string flash_after_failure(const result_description &result, const programming_end &end)
{
    if (end.verified())
        return "programmed and verified before that; the new BIOS is in it";
    const bool changed = end.progress.seen && (end.progress.percent > 0 || end.progress.attempt > 1);
    return changed ? CORRUPTED : result.flash;
}

outcome report_failed(const program_subject &subject, const programming_end &end)
{
    const result_description result = describe_result(end.result);
    const bool nothing_to_do = result.exit == EXIT_NOTHING_TO_DO;
    const std::string what = module_text(subject) +
                             (nothing_to_do ? ": nothing to do: " : ": programming failed: ") +
                             code_text(end.result) + " (" + result.name + "): " + result.meaning;
    const std::string flash = flash_after_failure(result, end);
    outcome told{result.exit, what, {{"flash", flash}, {"next", result.next}}, json_head(subject, end)};
    told.json["outcome"] = nothing_to_do ? "nothing to do" : "failed";
    told.json.update(json_of(result));
    told.json["error"] = what;
    told.json["flash"] = flash;
    return told;
}

outcome report_vanished(const program_subject &subject, const programming_end &end)
{
    const std::string what = module_text(subject) + ": the daemon of slot " + std::to_string(subject.serving_slot) +
                             " ended before it reported a result (" + seen_text(end) + ")";
    const std::string flash = end.verified()      ? VERIFIED
                              : end.progress.seen ? CORRUPTED
                                                  : "unknown: do not reboot the card";
    const std::string next =
        end.verified() ? "look at the card's state (chassis status)"
                       : "look at the card's state (chassis status), then program it again before a reboot";
    outcome told{EXIT_FAILED, what, {{"flash", flash}, {"next", next}}, json_head(subject, end)};
    told.json["outcome"] = "daemon ended";
    told.json["error"] = what;
    told.json["flash"] = flash;
    told.json["next"] = next;
    return told;
}

// biosctl looks away and the card works on.
outcome report_goes_on(const program_subject &subject, const programming_end &end, exit_code exit,
                       const std::string &why)
{
    const std::string what =
        module_text(subject) + ": " + why + "; the programming goes on in the card (" + seen_text(end) + ")";
    const std::string next = "look at it again with: biosctl watch " + std::to_string(subject.programmed_module);
    const std::string flash = "being programmed: do not reboot the card";
    outcome told{exit, what, {{"flash", flash}, {"next", next}}, json_head(subject, end)};
    told.json["outcome"] = "goes on";
    told.json["error"] = what;
    told.json["flash"] = flash;
    told.json["next"] = next;
    return told;
}

outcome report_result(const program_subject &subject, const programming_end &end)
{
    if (end.result != BIOS_OK)
        return report_failed(subject, end);
    if (end.verified())
        return report_verified(subject, end);
    return end.progress.seen ? report_unverified(subject, end) : report_nothing_programmed(subject, end);
}

} // namespace

outcome report_programming(const program_subject &subject, const programming_end &end)
{
    switch (end.how) {
    case watch_end::reported:
        return report_result(subject, end);
    case watch_end::vanished:
        return report_vanished(subject, end);
    case watch_end::interrupted:
        return report_goes_on(subject, end, EXIT_INTERRUPTED, "interrupted");
    case watch_end::timed_out:
        break;
    }
    return report_goes_on(subject, end, EXIT_FAILED, "no result within the time given");
}
