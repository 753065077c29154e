#include "flash_event.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <iterator>

namespace
{

constexpr const char *EVENT_NAMES[] = {"begun",  "attempt", "erased", "verified", "equal",
                                       "failed", "refused", "ended",  "cut_off",  "lost"};
constexpr const char *INSTANCE_NAMES[] = {"primary", "alternate"};
constexpr std::string_view TIME_FORM = "0000-00-00T00:00:00.000Z"; // a 0 stands for any digit
constexpr std::size_t TEXT_BYTES_MAX = 64;
constexpr std::size_t DIGEST_DIGITS = 64;

bool is_digit(char character)
{
    return character >= '0' && character <= '9';
}

bool is_time(std::string_view text)
{
    return std::equal(text.begin(), text.end(), TIME_FORM.begin(), TIME_FORM.end(),
                      [](char given, char form) { return form == '0' ? is_digit(given) : given == form; });
}

bool needs_no_escape(char character)
{
    return character >= ' ' && character <= '~' && character != '"' && character != '\\';
}

std::string text_member(const char *name, const std::string &value)
{
    std::string text;
    std::copy_if(value.begin(), value.end(), std::back_inserter(text), needs_no_escape);
    return text.empty() ? "" : ",\"" + std::string(name) + "\":\"" + text.substr(0, TEXT_BYTES_MAX) + "\"";
}

bool is_digest(const std::string &text)
{
    return text.size() == DIGEST_DIGITS && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

std::string digest_member(const char *name, const std::string &value)
{
    return is_digest(value) ? text_member(name, value) : "";
}

template<class Number>
std::string member(const char *name, const std::optional<Number> &value)
{
    if (!value)
        return {};
    char text[64];
    (void)std::snprintf(text, sizeof text, ",\"%s\":%" PRIu64, name, std::uint64_t{*value});
    return text;
}

std::string result_member(const std::optional<std::uint32_t> &result)
{
    if (!result)
        return {};
    char text[40];
    (void)std::snprintf(text, sizeof text, ",\"result\":\"0x%08" PRIx32 "\"", *result);
    return text;
}

// Takes a line apart from its beginning.
class line_reader
{
public:
    explicit line_reader(std::string_view line) : rest_(line) {}

    bool take(std::string_view literal)
    {
        if (!rest_.starts_with(literal))
            return false;
        rest_.remove_prefix(literal.size());
        return true;
    }
    template<class Number>
    bool take_number(Number &number, int base = 10)
    {
        const auto [end, failure] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), number, base);
        if (failure != std::errc{})
            return false;
        rest_.remove_prefix(static_cast<std::size_t>(end - rest_.data()));
        return true;
    }
    bool take_text(std::string &text)
    {
        const std::size_t end = rest_.find('"');
        if (end == std::string_view::npos)
            return false;
        text = rest_.substr(0, end);
        rest_.remove_prefix(end + 1);
        return true;
    }

    // A member that need not be there. false when it is there and cannot be read.
    template<class Number>
    bool take_member(std::string_view begin, std::optional<Number> &value)
    {
        if (!take(begin))
            return true;
        Number number = 0;
        if (!take_number(number))
            return false;
        value = number;
        return true;
    }
    bool take_result(std::optional<std::uint32_t> &value)
    {
        if (!take(",\"result\":\"0x"))
            return true;
        std::uint32_t code = 0;
        if (!take_number(code, 16) || !take("\""))
            return false;
        value = code;
        return true;
    }
    bool take_text_member(std::string_view begin, std::string &text) { return !take(begin) || take_text(text); }
    bool at_end() const { return rest_.empty(); }

private:
    std::string_view rest_;
};

template<std::size_t count>
std::optional<unsigned> place_of(const std::string &name, const char *const (&names)[count])
{
    const auto *found = std::find(std::begin(names), std::end(names), name);
    return found != std::end(names) ? std::optional(static_cast<unsigned>(found - names)) : std::nullopt;
}

bool take_head(line_reader &line, flash_event &event)
{
    std::string flash, kind;
    if (!line.take("{\"time\":\"") || !line.take_text(event.time) || !is_time(event.time) ||
        !line.take(",\"slot\":") || !line.take_number(event.slot) || !line.take(",\"flash\":\"") ||
        !line.take_text(flash) || !line.take(",\"sequence\":") || !line.take_number(event.sequence) ||
        !line.take(",\"pid\":") || !line.take_number(event.pid) || !line.take(",\"event\":\"") ||
        !line.take_text(kind))
        return false;
    const auto instance = place_of(flash, INSTANCE_NAMES);
    const auto place = place_of(kind, EVENT_NAMES);
    if (!instance || !place || event.sequence > FLASH_EVENT_SEQUENCE_MAX)
        return false;
    event.instance = *instance;
    event.kind = static_cast<flash_event_kind>(*place);
    return true;
}

} // namespace

const char *flash_event_name(flash_event_kind kind)
{
    return EVENT_NAMES[static_cast<std::size_t>(kind)];
}

const char *flash_instance_name(unsigned instance)
{
    return INSTANCE_NAMES[instance == 0 ? 0 : 1];
}

std::string flash_event_format(const flash_event &event)
{
    char head[256];
    (void)std::snprintf(head, sizeof head,
                        R"({"time":"%s","slot":%u,"flash":"%s","sequence":%)" PRIu64 R"(,"pid":%)" PRIu32
                        R"(,"event":"%s")",
                        event.time.c_str(), event.slot, flash_instance_name(event.instance), event.sequence,
                        event.pid, flash_event_name(event.kind));
    return head + member("attempt", event.attempt) + member("image_bytes", event.image_bytes) +
           text_member("version", event.version) + text_member("old_version", event.old_version) +
           digest_member("sha256", event.sha256) + text_member("user", event.user) +
           text_member("host", event.host) + member("sectors_erased", event.sectors_erased) +
           member("bytes_written", event.bytes_written) + result_member(event.result) +
           member("duration_ms", event.duration_ms) + member("lost", event.lost) +
           text_member("reason", event.reason) + digest_member("chain", event.chain) + "}\n";
}

std::optional<flash_event> flash_event_parse(std::string_view text)
{
    line_reader line(text);
    flash_event event;
    if (!take_head(line, event) || !line.take_member(",\"attempt\":", event.attempt) ||
        !line.take_member(",\"image_bytes\":", event.image_bytes) ||
        !line.take_text_member(",\"version\":\"", event.version) ||
        !line.take_text_member(",\"old_version\":\"", event.old_version) ||
        !line.take_text_member(",\"sha256\":\"", event.sha256) ||
        !line.take_text_member(",\"user\":\"", event.user) || !line.take_text_member(",\"host\":\"", event.host) ||
        !line.take_member(",\"sectors_erased\":", event.sectors_erased) ||
        !line.take_member(",\"bytes_written\":", event.bytes_written) || !line.take_result(event.result) ||
        !line.take_member(",\"duration_ms\":", event.duration_ms) || !line.take_member(",\"lost\":", event.lost) ||
        !line.take_text_member(",\"reason\":\"", event.reason) ||
        !line.take_text_member(",\"chain\":\"", event.chain) || !line.take("}") || !line.at_end())
        return std::nullopt;
    // Numbers with leading zeros and the like: there is one form of each event.
    const std::string same = flash_event_format(event);
    return std::string_view(same).substr(0, same.size() - 1) == text ? std::optional(event) : std::nullopt;
}
