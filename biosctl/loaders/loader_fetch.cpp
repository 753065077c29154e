#include <cerrno>
#include <cstring>
#include <unistd.h>

#include "bios_results.h"
#include "client.h"
#include "file_search.h"
#include "image_files.h"
#include "interrupt.h"
#include "inventory.h"
#include "loader.h"
#include "loader_messages.h"
#include "output_file.h"
#include "place_hints.h"
#include "result_text.h"
#include "serving_slot.h"

namespace
{

// Reading takes no time, but the daemon may be busy with an installation or with images.
constexpr std::uint32_t ERRNO_MAX = 4095;

struct file_kind {
    const char *command;
    const char *name;
};
constexpr file_kind LOADER{"loader get", "boot loader"};
constexpr file_kind KS{"loader ks", "/etc/srg-ks.sro"};

const file_kind &kind_of(const loader_file_options &options)
{
    return options.file == loader_file::loader ? LOADER : KS;
}

std::string subject_text(const loader_file_options &options, unsigned slot)
{
    return slot_text(slot) + ": " + kind_of(options).name;
}

class file_asker
{
public:
    file_asker(const loader_file_options &options, unsigned slot)
        : file_(options.file),
          slot_(slot),
          wait_s_(options.timeout_s.value_or(ANSWER_WAIT_LIMIT_S))
    {
    }
    bool bound() const { return endpoint_.bound(); }

    file_answer ask(std::uint32_t length)
    {
        request_answer answer =
            endpoint_.request(node_of_module(slot_), encode_loader_file_request(file_, length), wait_s_);
        if (!answer.answered)
            return {.error = answer.error};
        if (answer.status != BIOS_OK)
            return {.status = answer.status};
        return decode_file_answer(std::move(answer.payload), length);
    }

private:
    client_endpoint endpoint_;
    loader_file file_;
    unsigned slot_;
    unsigned wait_s_;
};

outcome report_status(const loader_file_options &options, unsigned slot, std::uint32_t status)
{
    const std::string what = subject_text(options, slot) + " not read";
    if (status > ERRNO_MAX)
        return failure_by_code(what, status);
    outcome told;
    if (status == BIOS_LOADER_FILE_NO_MEMORY)
        told = failure(EXIT_FAILED, what + ": the daemon has no memory for the answer",
                       "ask for less of it with --size, or free memory on the card");
    else if (status == EIO && options.size_bytes.value_or(0) > 0)
        told = failure(EXIT_FAILED,
                       what + ": error " + std::to_string(status) + " (" + std::strerror(EIO) +
                           "); it has fewer than " + std::to_string(*options.size_bytes) +
                           " bytes, or they cannot be read",
                       "leave --size away: then biosctl finds the length");
    else
        told = failure(status == ENOENT ? EXIT_NOT_FOUND : EXIT_FAILED,
                       what + ": error " + std::to_string(status) + " (" + std::strerror(static_cast<int>(status)) +
                           ")",
                       "look at the card's files" + place_in_brackets(look_at::log, std::to_string(slot)));
    told.json["result"] = code_text(status);
    return told;
}

outcome report_no_content(const loader_file_options &options, unsigned slot, const file_answer &answer)
{
    if (answer.error != 0)
        return no_answer_failure(slot, answer.error);
    if (!answer.understood)
        return failure(EXIT_FAILED,
                       subject_text(options, slot) + " not read: the daemon's answer is not understood",
                       "check that biosctl and the daemon are of the same version");
    return report_status(options, slot, answer.status);
}

outcome report_output(const std::string &path, int error)
{
    const std::string what = "'" + path + "' is not written: " + std::strerror(error);
    if (error == EEXIST)
        return failure(EXIT_FAILED, what, "name another file, or replace it with --force");
    return failure(error == ENOENT ? EXIT_NOT_FOUND : EXIT_FAILED, what,
                   "check the folder, its room and its rights");
}

std::string length_text(const loader_file_options &options, const file_search &search)
{
    const std::string bytes = std::to_string(search.answer.content.size());
    if (options.size_bytes)
        return "the first " + bytes + " bytes, as asked for; the file may be longer";
    const std::string found = "found with " + std::to_string(search.requests) + " requests";
    if (search.beyond_status == 0)
        return found + ": " + bytes + " bytes, which is as much as is asked for; the file may be longer";
    return found + ": " + bytes + " bytes are there, one more is answered with error " +
           std::to_string(search.beyond_status);
}

outcome report_written(const loader_file_options &options, unsigned slot, const file_search &search)
{
    const std::size_t bytes = search.answer.content.size();
    const char *version = srg_sw_interim_ver_file_get(options.output.c_str());
    outcome told;
    told.headline = subject_text(options, slot) + " written to " + options.output;
    told.hints = {{"length", length_text(options, search)}, {"version", version != nullptr ? version : "-"}};
    told.json = {{"output", options.output},
                 {"bytes", bytes},
                 {"length", length_text(options, search)},
                 {"requests", search.requests},
                 {"may_be_longer", options.size_bytes.has_value() || search.beyond_status == 0}};
    told.json["version"] = version != nullptr ? nlohmann::ordered_json(version) : nlohmann::ordered_json();
    return told;
}

file_search fetch(file_asker &asker, const loader_file_options &options)
{
    if (!options.size_bytes)
        return find_whole_file([&](std::uint32_t length) { return asker.ask(length); });
    file_search search{.answer = asker.ask(*options.size_bytes), .requests = 1};
    if (!search.answer.has_content())
        search.end = file_search_end::failed;
    return search;
}

outcome fetch_and_write(const loader_file_options &options, unsigned slot, bool json)
{
    if (const int error = check_output_file(options.output, options.overwrite); error != 0)
        return report_output(options.output, error);
    file_asker asker(options, slot);
    if (!asker.bound())
        return no_endpoint_failure();

    catch_interrupt();
    const file_search search = [&] {
        const interrupt_ends_process guard(
            json ? STDOUT_FILENO : STDERR_FILENO,
            failure_text(failure(EXIT_INTERRUPTED, "interrupted before the file was read", "ask again"), json));
        return fetch(asker, options);
    }();
    if (search.end == file_search_end::failed)
        return report_no_content(options, slot, search.answer);
    if (search.end == file_search_end::changed)
        return failure(EXIT_FAILED, subject_text(options, slot) + " changed while it was read", "ask again");
    if (const int error = write_output_file(options.output, search.answer.content, options.overwrite); error != 0)
        return report_output(options.output, error);
    return report_written(options, slot, search);
}

} // namespace

outcome run_loader_file(const loader_file_options &options, bool json)
{
    const serving_slot serving = find_serving_slot(options.via);
    if (!serving.slot)
        return serving.problem;
    outcome told = fetch_and_write(options, *serving.slot, json);
    told.json["command"] = kind_of(options).command;
    told.json["serving_slot"] = *serving.slot;
    return told;
}
