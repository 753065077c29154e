#include "bios_cmd_check.h"

#include <cstdio>
#include <cstdlib>

#include "bios_daemon_state.h"
#include "bios_log.h"

namespace
{

constexpr std::size_t LINE_BYTES = 128;

} // namespace

int bios_cmd_program_in_progress_check()
{
    char line[LINE_BYTES] = "pgrep bios_cmd";
    std::FILE *pipe = ::popen(line, "r");
    if (pipe == nullptr)
        return 0;
    const bool running = std::fgets(line, sizeof line, pipe) != nullptr;
    if (running)
        BIOS_LOG("pid of the bios_cmd %d \n ", static_cast<int>(std::strtol(line, nullptr, 10)));
    else
        BIOS_LOG("pid of the bios_cmd is null ");
    bios_cmd_program_in_progress = running ? 1 : 0;
    (void)::pclose(pipe);
    return 0;
}
