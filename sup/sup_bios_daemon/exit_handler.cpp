#include "exit_handler.h"

#include <cstdio>
#include <cstdlib>
#include <execinfo.h>
#include <syslog.h>
#include <unistd.h>

namespace
{

constexpr const char *TRACE_FILE = "/bootflash/bios_daemon.dbg";
constexpr int MAX_FRAMES = 250;
constexpr unsigned PAUSE_S = 5;

void append_trace(char **frame_text, int frames, std::FILE *file)
{
    std::fputs("dumping stack trace\n", file);
    for (int i = 0; i < frames; ++i)
        std::fprintf(file, "%s ", frame_text[i] != nullptr ? frame_text[i] : "NULL");
    std::fputc('\n', file);
}

} // namespace

void biosd_on_exit(int exit_status, void *argument)
{
    void *frame[MAX_FRAMES];
    const int frames = ::backtrace(frame, MAX_FRAMES);
    char **frame_text = ::backtrace_symbols(frame, frames);

    std::FILE *file = std::fopen(TRACE_FILE, "a+");
    if (frame_text != nullptr && file != nullptr)
        append_trace(frame_text, frames, file);
    std::free(frame_text);
    if (file != nullptr)
        (void)std::fclose(file);

    ::syslog(LOG_EMERG, "biosd_on_exit: exit_arg: %d, arg; %p\n", exit_status, argument);
    (void)::sleep(PAUSE_S);
}
