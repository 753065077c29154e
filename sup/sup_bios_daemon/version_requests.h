// The version queries as the message loop serves them.
#pragma once

#include <cstdint>

#include "daemon_context.h"

// Each answers the request itself. 0, or BIOS_ERR_CARD_ID when the own card id is 0: the daemon ends.
std::uint32_t handle_get_src_bios_version(daemon_context &context, mts_message_t *message);
std::uint32_t handle_get_mod_bios_version(daemon_context &context, mts_message_t *message);
std::uint32_t handle_get_lc_bios_version(daemon_context &context, mts_message_t *message);
