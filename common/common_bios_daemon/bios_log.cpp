#include "bios_log.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "sdwrap.h"

namespace
{

constexpr std::size_t PLACE_BYTES = 128; // "file:line"; a longer name is cut
constexpr std::size_t LINE_BYTES = 12;   // of them for ":line"

// "file:line message" and the same with a colon more and a newline, put together from two texts that are formatted
// once: every request is logged, and formatting is most of what that costs the processor.
class log_line
{
public:
    log_line(const char *file, int line, const char *message)
        : message_(message),
          message_bytes_(std::strlen(message))
    {
        char *const end = text_ + PLACE_BYTES - LINE_BYTES;
        char *place = std::copy_n(file, ::strnlen(file, static_cast<std::size_t>(end - text_)), text_);
        *place++ = ':';
        place = std::to_chars(place, place + LINE_BYTES - 1, line).ptr;
        place_bytes_ = static_cast<std::size_t>(place - text_);
    }

    // Valid until the next call; length without the terminator.
    const char *event(std::size_t &length) { return composed(" ", "", length); }
    const char *output(std::size_t &length)
    {
        const bool line_ended = message_bytes_ > 0 && message_[message_bytes_ - 1] == '\n';
        return composed(": ", line_ended ? "" : "\n", length);
    }

private:
    const char *composed(std::string_view between, std::string_view end, std::size_t &length)
    {
        char *place = text_ + place_bytes_;
        for (const std::string_view part : {between, std::string_view(message_, message_bytes_), end})
            place = std::copy(part.begin(), part.end(), place);
        *place = '\0';
        length = static_cast<std::size_t>(place - text_);
        return text_;
    }

    const char *message_;
    std::size_t message_bytes_;
    std::size_t place_bytes_;
    char text_[PLACE_BYTES + BIOS_LOG_MESSAGE_BYTES + 4]; // file:line first, and what goes between and at the end
};

} // namespace

void bios_log(const char *file, int line, const char *format, ...)
{
    const int caller_errno = errno;

    char message[BIOS_LOG_MESSAGE_BYTES];
    std::va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);

    log_line composed(file, line, message);
    std::size_t length = 0;
    if (sdwrap_hist_event_subtype_check(BIOS_LOG_EVENT_TYPE, BIOS_LOG_SUBTYPE) == 0) {
        const char *event = composed.event(length);
        (void)sdwrap_hist_event(BIOS_LOG_EVENT_TYPE, static_cast<std::uint32_t>(length), event);
    }
    if (sdwrap_chk_int(BIOS_LOG_SUBTYPE, 0, 0, 1) != 0)
        buginf("%s:%d %s", file, line, message);
    const char *output = composed.output(length);
    (void)std::fwrite(output, 1, length, stdout);

    errno = caller_errno;
}
