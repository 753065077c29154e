// Boot-loader files that are handed to peers.
#pragma once

#include <cstdint>

#include "daemon_context.h"

// Each serves its request and answers it with as many bytes of the file as were asked for. Always 0: the daemon
// goes on.
std::uint32_t handle_get_loader_image(daemon_context &context, mts_message_t *message); // the installed loader
std::uint32_t handle_get_ks_image(daemon_context &context, mts_message_t *message);     // "/etc/srg-ks.sro"
