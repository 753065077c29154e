#include "verdict.h"

#include <charconv>
#include <string_view>

namespace
{

constexpr std::size_t NUMBER_DIGITS_MAX = 4; // as in the daemon

constexpr verdict_row ROWS[] = {
    {verdict::being_programmed,
     "being programmed",
     text_meaning::to_do,
     {"do not reboot the card", text_meaning::wrong}},
    {verdict::not_verified,
     "not verified: do not reboot",
     text_meaning::wrong,
     {"program it again: biosctl program SLOT"},
     look_at::nowhere,
     true},
    {verdict::unreachable, "unreachable", text_meaning::wrong, {"look at the card: "}, look_at::log_and_states},
    {verdict::unconfirmed,
     "unconfirmed",
     text_meaning::wrong,
     {"its agent does not answer; what its daemon says may not be so"}},
    {verdict::changed,
     "changed since it was programmed",
     text_meaning::wrong,
     {"find who; biosctl program SLOT --force=older"},
     look_at::nowhere,
     true},
    {verdict::reboot_pending, "reboot pending", text_meaning::to_do, {"the flash's version runs after a reboot"}},
    {verdict::update_available,
     "update available",
     text_meaning::to_do,
     {"next: biosctl program SLOT"},
     look_at::nowhere,
     true},
    {verdict::newer_than_shipped, "newer than shipped", text_meaning::to_do, {"the image is older than the flash"}},
    {verdict::in_step, "in step", text_meaning::well, {"nothing to do"}},
    {verdict::unknown, "unknown", text_meaning::wrong, {"a version could not be read"}},
};

// Takes a number and the character behind it from the front of the text.
std::optional<unsigned> take_number(std::string_view &text, char end)
{
    const std::size_t digits = text.find_first_not_of("0123456789");
    if (digits == std::string_view::npos || digits == 0 || digits > NUMBER_DIGITS_MAX || text[digits] != end)
        return std::nullopt;
    unsigned number = 0;
    (void)std::from_chars(text.data(), text.data() + digits, number); // at most four digits
    text.remove_prefix(digits + 1);
    return number;
}

} // namespace

std::optional<bios_version> parse_version(const std::string &text)
{
    std::string_view rest = text;
    const std::size_t begin = rest.find('v');
    if (begin == std::string_view::npos)
        return std::nullopt;
    rest.remove_prefix(begin + 1);
    bios_version version{};
    for (std::size_t k = 0; k < version.number.size(); ++k) {
        const auto number = take_number(rest, k + 1 < version.number.size() ? '.' : '(');
        if (!number)
            return std::nullopt;
        version.number[k] = *number;
    }
    const std::size_t end = rest.find(')');
    if (end == std::string_view::npos)
        return std::nullopt;
    version.date = rest.substr(0, end);
    return version;
}

verdict judge(const version_facts &facts)
{
    if (facts.being_programmed)
        return verdict::being_programmed;
    if (facts.not_verified)
        return verdict::not_verified;
    if (!facts.reachable)
        return verdict::unreachable;
    if (!facts.confirmed)
        return verdict::unconfirmed;
    if (facts.changed)
        return verdict::changed;
    const auto flash = parse_version(facts.flash);
    const auto running = parse_version(facts.running);
    if (!flash || !running)
        return verdict::unknown;
    if (*flash != *running)
        return verdict::reboot_pending;
    const auto source = parse_version(facts.source);
    if (!source)
        return verdict::unknown;
    if (source->number != flash->number)
        return source->number > flash->number ? verdict::update_available : verdict::newer_than_shipped;
    return verdict::in_step;
}

std::span<const verdict_row> verdict_rows()
{
    return ROWS;
}

styled_text advice_text(const verdict_row &row)
{
    return styled_text(row.advice) + place_text(row.where);
}

const verdict_row &row_of(verdict kind)
{
    return ROWS[static_cast<std::size_t>(kind)];
}

const char *verdict_name(verdict kind)
{
    return row_of(kind).name;
}
