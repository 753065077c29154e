// bios_agent: answers what others ask about its card (agent_messages.h). One process a card, beside the daemon; it
// waits for no daemon, and no daemon for it.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sysexits.h>

#include "agent_loop.h"
#include "agent_messages.h"
#include "chassis_dir.h"
#include "endpoints.h"
#include "mts.h"

namespace
{

constexpr const char *OWN_INVENTORY = "--own-inventory";

}

int main(int argc, char **argv)
{
    const bool has_own_inventory = argc == 2 && std::strcmp(argv[1], OWN_INVENTORY) == 0;
    if (argc > 1 && !has_own_inventory) {
        (void)std::fprintf(stderr, "usage: bios_agent [%s]\n", OWN_INVENTORY);
        return EX_USAGE;
    }
    (void)std::signal(SIGPIPE, SIG_IGN);
    (void)std::signal(SIGXFSZ, SIG_IGN); // a file may be larger than this process may make one
    if (chassis_own_slot() == 0) {
        (void)std::fprintf(stderr, "bios_agent: this process belongs to no card: %s is not set\n",
                           CHASSIS_ENV_SLOT);
        return EXIT_FAILURE;
    }
    const std::int32_t handle =
        mts_bind(BIND_KIND, static_cast<std::int32_t>(AGENT_SAP), BIND_OPTIONS, "bios_agent");
    if (handle < 0) {
        (void)std::fprintf(stderr, "bios_agent: no endpoint with sap %u: %s\n", AGENT_SAP, std::strerror(errno));
        return EXIT_FAILURE;
    }
    serve_card(handle, has_own_inventory ? inventory_kind::own : inventory_kind::common);
}
