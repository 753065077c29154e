// Delivers a file to the agent of a card, in a process of its own: what the process costs is then on both sides of
// a comparison with another program.
//   file_delivery_program CHASSIS SLOT FILE NAME
#include <cstdio>
#include <cstdlib>

#include "chassis_dir.h"
#include "file_transfer.h"
#include "mts_tools.h"

int main(int argc, char **argv)
{
    constexpr unsigned NO_CARD = 0;
    if (argc != 5 || chassis_attach(argv[1], NO_CARD) != 0) {
        std::fputs("usage: file_delivery_program CHASSIS SLOT FILE NAME\n", stderr);
        return EXIT_FAILURE;
    }
    const auto slot = static_cast<unsigned>(std::atoi(argv[2]));
    const transfer_outcome sent = send_file(mts_node_of_slot(slot), argv[3], argv[4]);
    if (!sent.is_done())
        std::fprintf(stderr, "file_delivery_program: status 0x%08x, request %d, file %d\n", sent.status,
                     sent.request_error, sent.file_error);
    return sent.is_done() ? EXIT_SUCCESS : EXIT_FAILURE;
}
