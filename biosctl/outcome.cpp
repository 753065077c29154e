#include "outcome.h"

#include <cstdio>
#include <unistd.h>

#include "terminal.h"

outcome failure(exit_code exit, const std::string &what, const std::string &next)
{
    return {exit, what, {{"next", next}}, {{"error", what}, {"next", next}}};
}

outcome failure_by_code(const std::string &what, std::uint32_t code)
{
    const result_description result = describe_result(code);
    outcome end{failure_exit(code),
                what + ": " + code_text(code) + " (" + result.name + "): " + result.meaning,
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
            {"flash", result.flash},
            {"next", result.next}};
}

nlohmann::ordered_json text_or_null(const std::string &text)
{
    return text.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(text);
}

namespace
{

std::string json_text(const outcome &end)
{
    nlohmann::ordered_json document = end.json;
    document["exit_code"] = static_cast<int>(end.exit);
    // Text that came in from outside need not be UTF-8.
    return document.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

std::string text_of(const outcome &end)
{
    std::string text = end.headline;
    for (const hint &one : end.hints)
        text += std::string("\n  ") + one.label + ": " + one.text;
    return text;
}

void print_text(const outcome &end)
{
    print_report(end.report);
    if (end.headline.empty())
        return;
    if (end.exit == EXIT_DONE) {
        (void)std::printf("%s\n", fitted(text_of(end), STDOUT_FILENO).c_str());
        return;
    }
    (void)std::fputs(fitted(failure_text(end, false), STDERR_FILENO).c_str(), stderr);
}

} // namespace

std::string failure_text(const outcome &end, bool json)
{
    return json ? json_text(end) : "biosctl: " + text_of(end) + "\n";
}

void print_report(const text_report &report)
{
    (void)std::fputs(text_of(report, style_of(STDOUT_FILENO)).c_str(), stdout);
    (void)std::fflush(stdout); // it comes first where both streams are one
}

int print_outcome(const outcome &end, bool json)
{
    if (!json)
        print_text(end);
    else if (!end.json.is_null())
        (void)std::fputs(json_text(end).c_str(), stdout);
    // Output that could not be written makes the command fail.
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
        return end.exit == EXIT_DONE ? EXIT_FAILED : end.exit;
    return end.exit;
}
