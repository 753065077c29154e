// Programs the primary flash of a card with an image by the call that the daemon's programming child makes, in a
// process of its own: what the process costs is then on both sides of a comparison with another program.
//   flash_writing_program CHASSIS SLOT IMAGE
// The requester is left out: no endpoint is open, and the progress messages end where they are sent.
#include <cstdio>
#include <cstdlib>

#include "bios_flash.h"
#include "chassis_dir.h"

int main(int argc, char **argv)
{
    constexpr std::int32_t NO_HANDLE = -1;
    constexpr std::uint32_t FIRST_ATTEMPT = 1;
    if (argc != 4 || chassis_attach(argv[1], static_cast<unsigned>(std::atoi(argv[2]))) != 0) {
        std::fputs("usage: flash_writing_program CHASSIS SLOT IMAGE\n", stderr);
        return EXIT_FAILURE;
    }
    bios_flash_progress_area_t area = {};
    const std::int32_t result =
        program_bios_flash(NO_HANDLE, 0, 0, chassis_own_slot(), argv[3], FIRST_ATTEMPT, &area, BIOS_FLASH_PRIMARY);
    if (result != 0)
        std::fprintf(stderr, "flash_writing_program: 0x%08x\n", static_cast<unsigned>(result));
    return result == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
