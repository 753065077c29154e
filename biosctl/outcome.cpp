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
    const auto fit = end.is_help ? wrapped_for : fitted;
    if (!end.report.empty())
        (void)std::printf("%s\n", fit(end.report, STDOUT_FILENO).c_str());
    if (end.headline.empty())
        return;
    if (end.exit == EXIT_DONE) {
        (void)std::printf("%s\n", fitted(text_of(end), STDOUT_FILENO).c_str());
        return;
    }
    (void)std::fflush(stdout); // the report comes first where both streams are one
    (void)std::fputs(fitted(failure_text(end, false), STDERR_FILENO).c_str(), stderr);
}

} // namespace

std::string failure_text(const outcome &end, bool json)
{
    return json ? json_text(end) : "biosctl: " + text_of(end) + "\n";
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
