#include "source.h"

#include <algorithm>
#include <chrono>
#include <poll.h>
#include <unistd.h>

#include "bios_results.h"
#include "client.h"
#include "elapsed.h"
#include "harmless_path.h"
#include "interrupt.h"
#include "inventory.h"
#include "lock_holders.h"
#include "place_hints.h"
#include "progress_bar.h"
#include "query_process.h"
#include "result_text.h"
#include "serving_slot.h"

namespace
{

using steady = std::chrono::steady_clock;

constexpr unsigned UNPACKING_TIMEOUT_S = 300; // a system image is unpacked twice, with pauses
constexpr int REDRAW_MS = 1000;
constexpr std::size_t LABEL_COLUMNS = 16;
constexpr std::size_t VERSION_COLUMNS = 24;
constexpr std::string_view BOOTFLASH_SCHEME = "bootflash:";

std::string image_text(const source_options &options)
{
    return options.image_path ? *options.image_path : "image tree";
}

void take_notices(client_endpoint &endpoint, std::uint32_t node, progress_state &state)
{
    while (const auto message = endpoint.receive(0)) {
        if (!message->is_from_daemon(node))
            continue;
        if (const auto percent = decode_source_progress(message->opcode, message->payload); percent)
            state.percent = std::max(state.percent, *percent);
    }
}

request_answer ask_with_progress(client_endpoint &endpoint, const source_options &options, unsigned slot)
{
    const std::uint32_t node = node_of_module(slot);
    query_process query(daemon_query(node, encode_source_version_request(options.image_path, endpoint.address()),
                                     options.timeout_s.value_or(UNPACKING_TIMEOUT_S)));
    const steady::time_point start = steady::now();
    progress_view view(STDERR_FILENO, slot_text(slot) + ": " + image_text(options));
    progress_state state{.seen = true}; // a card with one flash tells of no progress at all
    for (;;) {
        view.show(state, seconds_since(start));
        pollfd waiting[] = {{query.descriptor(), POLLIN, 0}, {endpoint.descriptor(), POLLIN, 0}};
        (void)::poll(waiting, std::size(waiting), query.descriptor() < 0 ? 0 : REDRAW_MS);
        take_notices(endpoint, node, state);
        if (query.descriptor() >= 0 && waiting[0].revents == 0)
            continue;
        if (query.take())
            return query.answer();
    }
}

outcome report_no_versions(const source_options &options, unsigned slot)
{
    const std::string what = slot_text(slot) + ": no BIOS image for this card in " +
                             (options.image_path ? *options.image_path : "its image tree");
    const std::string reason =
        options.image_path ? "there is no such file on the card, it is no system image, or it holds no BIOS "
                             "for this type of card"
                           : "the image tree holds no BIOS for this type of card, or it holds no version";
    const std::string next = "look at the card's log" + place_in_brackets(look_at::log, std::to_string(slot));
    outcome told = failure(EXIT_FAILED, what, next);
    told.hints.insert(told.hints.begin(), {"likely", reason});
    told.json["likely_reasons"] = nlohmann::ordered_json::array({reason});
    return told;
}

outcome report_locked(unsigned slot, bool readable)
{
    const std::string what =
        slot_text(slot) + ": not asked: " +
        (readable ? "a programming runs in the chassis, and the images are unpacked in the same place"
                  : "the module locks cannot be read, and with them whether a programming runs");
    return failure(readable ? EXIT_BUSY : EXIT_FAILED, what,
                   readable ? "ask again when it has ended" : no_locks_hint());
}

table version_table(const std::vector<source_version> &entries)
{
    table versions({{"FLASH", LABEL_COLUMNS}, {"VERSION", VERSION_COLUMNS}, {"FORMAT"}});
    for (const source_version &entry : entries)
        versions.add({entry.label, entry.version, image_format_text(entry.image_format)});
    return versions;
}

} // namespace

std::optional<std::string> image_path_of(const std::string &image, std::string &problem_out)
{
    std::string path = image;
    if (path.starts_with(BOOTFLASH_SCHEME)) {
        path.erase(0, BOOTFLASH_SCHEME.size());
        if (path.starts_with("///"))
            path.erase(0, 3);
        else if (path.starts_with("/"))
            path.erase(0, 1);
        if (!path.empty())
            path.insert(0, "/bootflash/");
    }
    if (!path.starts_with("/") || path.ends_with("/"))
        problem_out = "'" + image + "' is no image: name it bootflash:NAME or by an absolute path on the card";
    else if (path.size() > IMAGE_PATH_BYTES_MAX)
        problem_out = "the image's path has " + std::to_string(path.size()) + " bytes; at most " +
                      std::to_string(IMAGE_PATH_BYTES_MAX) + " fit into a request";
    else if (!is_harmless_path(path.c_str()))
        problem_out = "'" + image + "' has characters that the daemon refuses: only letters, digits and /._-+:@,=%";
    else
        return path;
    return std::nullopt;
}

outcome report_source(const source_options &options, unsigned slot, const source_versions_answer &answer)
{
    outcome told;
    if (answer.status != BIOS_OK)
        told = failure_by_code(slot_text(slot) + ": the versions in " + image_text(options) + " were not all read",
                               answer.status);
    else if (answer.entries.empty())
        told = report_no_versions(options, slot);
    // What was read before a failure is told all the same.
    if (!answer.entries.empty())
        told.report = {version_table(answer.entries)};
    told.json["command"] = "source";
    told.json["serving_slot"] = slot;
    told.json["image"] = image_text(options);
    told.json["status"] = code_text(answer.status);
    told.json["versions"] = nlohmann::ordered_json::array();
    for (const source_version &entry : answer.entries)
        told.json["versions"].push_back({{"label", entry.label},
                                         {"version", entry.version},
                                         {"image_format", image_format_text(entry.image_format)}});
    return told;
}

outcome run_source(const source_options &options, bool json)
{
    const serving_slot serving = find_serving_slot(options.via);
    if (!serving.slot)
        return serving.problem;
    const unsigned slot = *serving.slot;
    if (const programming_locks locks = find_programming(); !locks.readable || locks.any)
        return report_locked(slot, locks.readable);
    client_endpoint endpoint;
    if (!endpoint.bound())
        return no_endpoint_failure();

    catch_interrupt();
    const interrupt_ends_process guard(
        json ? STDOUT_FILENO : STDERR_FILENO,
        failure_text(failure(EXIT_INTERRUPTED, "interrupted before the answer came", "ask again"), json));
    const request_answer answer = ask_with_progress(endpoint, options, slot);
    if (!answer.answered)
        return no_answer_failure(slot, answer.error);
    const auto versions = decode_source_versions(answer.payload);
    if (answer.status != BIOS_OK)
        return report_source(options, slot, {.status = answer.status});
    if (!versions)
        return failure(EXIT_FAILED, slot_text(slot) + ": the daemon's answer is not understood",
                       "check that biosctl and the daemon are of the same version");
    return report_source(options, slot, *versions);
}
