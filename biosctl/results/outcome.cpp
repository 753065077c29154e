#include "outcome.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

outcome failure(exit_code exit, const styled_text &what, const std::string &next)
{
    return {exit, what, {{"next", next}}, {{"error", what.plain()}, {"next", next}}};
}

outcome failure_by_code(const std::string &what, std::uint32_t code)
{
    const result_description result = describe_result(code);
    outcome end{failure_exit(code),
                what + ": " + result_sentence(result),
                {{"flash", result.flash}, {"next", result.next}},
                json_of(result)};
    end.json["error"] = what;
    return end;
}

nlohmann::ordered_json json_of(const result_description &result)
{
    return {{"result", code_text(result.code)},
            {"name", result.name},
            {"meaning", result.meaning},
            {"flash", result.flash.plain()},
            {"next", result.next}};
}

nlohmann::ordered_json text_or_null(const std::string &text)
{
    return text.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(text);
}

namespace
{

constexpr const char *FAILURE_PREFIX = "biosctl: ";

// Why something that was printed so far could not be written; 0: all was.
int &output_error()
{
    static int error = 0;
    return error;
}

// At once: it comes first where both streams are one.
void print(const std::string &text)
{
    if ((std::fputs(text.c_str(), stdout) == EOF || std::fflush(stdout) != 0) && output_error() == 0)
        output_error() = errno;
}

// On standard error, also with --json: standard output takes nothing. Whoever has closed it wants no more.
int output_failure(const outcome &end)
{
    const int error = output_error();
    if (error != EPIPE)
        (void)std::fprintf(stderr,
                           "%sthe output could not be written: %s\n  next: check where standard output goes to\n",
                           FAILURE_PREFIX, std::strerror(error));
    return end.exit == EXIT_DONE ? EXIT_FAILED : end.exit;
}

std::string json_text(const outcome &end)
{
    nlohmann::ordered_json document = end.json;
    document["exit_code"] = static_cast<int>(end.exit);
    // Text that came in from outside need not be UTF-8.
    return document.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

// The headline and the hints.
text_report message_of(const outcome &end, const char *prefix)
{
    text_report message{text_line{prefix + end.headline}};
    for (const hint &one : end.hints)
        message.push_back(text_line{"  " + std::string(one.label) + ": " + one.text});
    return message;
}

void print_text(const outcome &end)
{
    print_report(end.report);
    if (end.headline.empty())
        return;
    if (end.exit == EXIT_DONE)
        print_report(message_of(end, ""));
    else
        (void)std::fputs(text_of(message_of(end, FAILURE_PREFIX), style_of(STDERR_FILENO)).c_str(), stderr);
}

} // namespace

std::string failure_text(const outcome &end, bool json)
{
    return json ? json_text(end) : text_of(message_of(end, FAILURE_PREFIX), {});
}

void print_report(const text_report &report)
{
    print(text_of(report, style_of(STDOUT_FILENO)));
}

int print_outcome(const outcome &end, bool json)
{
    if (!json)
        print_text(end);
    else if (!end.json.is_null())
        print(json_text(end));
    return output_error() == 0 ? end.exit : output_failure(end);
}
