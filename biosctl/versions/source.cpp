#include "source.h"

#include <chrono>
#include <poll.h>
#include <unistd.h>

#include "agent_messages.h"
#include "agent_result_text.h"
#include "elapsed.h"
#include "harmless_path.h"
#include "interrupt.h"
#include "inventory.h"
#include "progress_bar.h"
#include "query_process.h"
#include "result_text.h"
#include "serving_slot.h"
#include "sha256.h"
#include "size_text.h"

namespace
{

using steady = std::chrono::steady_clock;

constexpr unsigned UNPACKING_TIMEOUT_S = 65; // the agent gives up after 60 s
constexpr int REDRAW_MS = 1000;
constexpr std::size_t VERSION_COLUMNS = 16;
constexpr std::string_view BOOTFLASH_SCHEME = "bootflash:";

std::string image_text(const source_options &options)
{
    return options.image_path ? *options.image_path : "image tree";
}

image_reply ask_with_progress(const source_options &options, unsigned slot)
{
    image_question question{.card_id = card_id_of(slot)};
    if (options.image_path) {
        question.place = image_place::uri;
        question.uri = std::string(FILE_URI) + *options.image_path;
    }
    query_process query(
        [node = node_of_module(slot), question, limit_s = options.timeout_s.value_or(UNPACKING_TIMEOUT_S)] {
            return request_image(node, question, limit_s);
        });
    const steady::time_point start = steady::now();
    progress_view view(STDERR_FILENO, slot_text(slot) + ": " + image_text(options));
    for (;;) {
        view.show({.seen = true}, seconds_since(start));
        pollfd waiting{query.descriptor(), POLLIN, 0};
        if (query.descriptor() >= 0 && ::poll(&waiting, 1, REDRAW_MS) <= 0)
            continue;
        if (query.take())
            return image_reply_of(query.answer());
    }
}

// What is wrong, as the card has found it out.
std::string problem_text(const image_reply &reply)
{
    if (reply.image)
        return "the image holds no version";
    return reply.status != 0 ? agent_status_text(reply.status) : "the card's agent does not answer";
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

outcome report_source(const source_options &options, unsigned slot, const image_reply &reply)
{
    outcome told;
    if (!reply.image || reply.image->version.empty())
        told = failure(reply.status == AGENT_ERR_IMAGE_FILE ? EXIT_NOT_FOUND : EXIT_FAILED,
                       slot_text(slot) + ": " + image_text(options) + ": " + problem_text(reply),
                       reply.status == 0 && !reply.image ? "look at the card with: biosctl watch"
                                                         : "put another image there, or name one with --image");
    told.json["command"] = "source";
    told.json["serving_slot"] = slot;
    told.json["image"] = image_text(options);
    told.json["status"] = code_text(reply.status);
    if (!reply.image)
        return told;
    table image({{"VERSION", VERSION_COLUMNS}, {"SIZE"}, {"SHA-256"}});
    image.add({reply.image->version, size_text(reply.image->size_bytes), sha256_text(reply.image->digest)});
    told.report = {image};
    told.json["version"] = text_or_null(reply.image->version);
    told.json["size_bytes"] = reply.image->size_bytes;
    told.json["sha256"] = sha256_text(reply.image->digest);
    return told;
}

outcome run_source(const source_options &options, bool json)
{
    const serving_slot serving = find_serving_slot(options.via);
    if (!serving.slot)
        return serving.problem;
    catch_interrupt();
    const interrupt_ends_process guard(
        json ? STDOUT_FILENO : STDERR_FILENO,
        failure_text(failure(EXIT_INTERRUPTED, "interrupted before the answer came", "ask again"), json));
    return report_source(options, *serving.slot, ask_with_progress(options, *serving.slot));
}
