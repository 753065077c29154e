// Versions of the own card, one entry per own row: in the supervisor's form and in the form that a card sends to
// the supervisor that asks.
#pragma once

#include <cstdint>

#include "bios_flash_entry.h"
#include "mts.h"

extern "C" {

// Answers MTS_OPC_BIOS_GET_MOD_BIOS_VERSION for the own module with a bios_new_vers_message.
//   payload  not used
//   table    the own rows
// 0 after answering, -1 without an answer when memory ran out.
std::int32_t bios_get_new_self_version_info(std::int32_t handle, std::uint32_t module_num, mts_message_t *msg,
                                            const void *payload, const bios_card_table *table);

// Answers MTS_OPC_BIOS_GET_LC_BIOS_VERSION with a bios_compat_version_msg_t and a TLV for each further row.
//   payload  not used; may be null
//   table    the own rows; row 0 is read also when there is none
// 0 after answering, -0x40710028 without an answer when memory ran out.
std::int32_t bios_get_self_version_info(std::int32_t handle, mts_message_t *msg, const void *payload,
                                        const bios_card_table *table);

} // extern "C"
