// Extracts an image by the daemon's own operation, without its pauses, in a process of its own.
//   extraction_program SOURCE TEMPORARY PAUSES_S
// PAUSES_S: how long the operation has to pause in all, in seconds; another sum is a failure, so that what is left
// out of the measuring is what the measuring says.
#include <cstdio>
#include <cstdlib>

#include "image_extraction.h"

static unsigned paused_s = 0;

extern "C" unsigned __wrap_sleep(unsigned seconds)
{
    paused_s += seconds;
    return 0;
}

int main(int argc, char **argv)
{
    constexpr std::int32_t NO_HANDLE = -1;
    if (argc != 4) {
        std::fputs("usage: extraction_program SOURCE TEMPORARY PAUSES_S\n", stderr);
        return EXIT_FAILURE;
    }
    if (extract_bios_image(NO_HANDLE, 0, nullptr, argv[1], argv[2]) != 0)
        return EXIT_FAILURE;
    if (paused_s != static_cast<unsigned>(std::atoi(argv[3]))) {
        std::fprintf(stderr, "extraction_program: pauses of %u s\n", paused_s);
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
