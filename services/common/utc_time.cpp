#include "utc_time.h"

#include <cstdio>
#include <ctime>

namespace
{

constexpr std::uint64_t SECOND_NS = 1'000'000'000;
constexpr std::uint64_t MICROSECOND_NS = 1'000;

// To the second, and without what ends it.
std::string seconds_text(std::time_t seconds)
{
    std::tm utc{};
    char text[40] = "";
    if (::gmtime_r(&seconds, &utc) != nullptr)
        (void)std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
    return text;
}

std::uint64_t now_ns()
{
    timespec now{};
    (void)::clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * SECOND_NS + static_cast<std::uint64_t>(now.tv_nsec);
}

} // namespace

std::string utc_now()
{
    return seconds_text(std::time(nullptr)) + "Z";
}

std::string utc_seconds(std::int64_t time_s)
{
    return seconds_text(static_cast<std::time_t>(time_s)) + "Z";
}

std::string utc_now_microseconds()
{
    return utc_microseconds(now_ns());
}

std::string utc_microseconds(std::uint64_t time_ns)
{
    char fraction[32];
    (void)std::snprintf(fraction, sizeof fraction, ".%06uZ",
                        static_cast<unsigned>(time_ns % SECOND_NS / MICROSECOND_NS));
    return seconds_text(static_cast<std::time_t>(time_ns / SECOND_NS)) + fraction;
}

std::optional<std::int64_t> utc_parse_seconds(const std::string &text)
{
    std::tm utc{};
    const char *rest = ::strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &utc);
    if (rest == nullptr || (*rest != 'Z' && *rest != '.'))
        return std::nullopt;
    return ::timegm(&utc);
}
