// Tells whether a command-line programming tool (bios_cmd) is running.
#pragma once

// Sets bios_cmd_program_in_progress; leaves it as it is when the process list cannot be asked. The return value
// has no meaning.
extern "C" int bios_cmd_program_in_progress_check();
