#include "bios_log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "sdwrap.h"

void bios_log(const char *file, int line, const char *format, ...)
{
    const int caller_errno = errno;

    char message[BIOS_LOG_MESSAGE_BYTES];
    std::va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);

    if (sdwrap_hist_event_subtype_check(BIOS_LOG_EVENT_TYPE, BIOS_LOG_SUBTYPE) == 0) {
        char event[BIOS_LOG_MESSAGE_BYTES + 128];
        (void)std::snprintf(event, sizeof event, "%s:%d %s", file, line, message);
        (void)sdwrap_hist_event(BIOS_LOG_EVENT_TYPE, static_cast<std::uint32_t>(std::strlen(event)), event);
    }
    if (sdwrap_chk_int(BIOS_LOG_SUBTYPE, 0, 0, 1) != 0)
        buginf("%s:%d %s", file, line, message);

    const std::size_t length = std::strlen(message);
    const bool line_ended = length > 0 && message[length - 1] == '\n';
    std::printf("%s:%d: %s%s", file, line, message, line_ended ? "" : "\n");

    errno = caller_errno;
}
