// Installation of the boot loader that a system image carries.
#pragma once

#include <cstdint>

#include "daemon_context.h"

// Serves MTS_OPC_BIOS_INSTALL_LOADER: installs the loader, removes the image if the request says so, and answers.
// Blocks for as long as the tools take. Always 0: the daemon goes on.
std::uint32_t handle_install_loader(daemon_context &context, mts_message_t *message);
