// The version of the BIOS that runs, kept apart from the version in the flash: what was written does not run
// until the card restarts.
#pragma once

#include <cstdint>

extern "C" {

// Sets running_version at start-up from the flashes or, when the software restarts as part of an in-service
// upgrade, from the record that the previous process left. Always 0.
std::int32_t mod_bios_version_init(std::int32_t handle);

// Version text of an own row.
//   type  1: the running version; any other: the version in the flash, or the running one while a flash is
//         being written
//   out   128 bytes
// Always 0.
std::int32_t mod_get_bios_version(std::int32_t handle, std::uint32_t row_index, std::uint32_t type, char *out);

} // extern "C"

// The record of the running version across an in-service restart: 128 bytes.
constexpr const char *RUNNING_VERSION_RECORD = "/mnt/pss/bios_run_ver";

// Writes running_version to the record; failures are logged and leave no record.
void record_running_version();

// Removes the record: the programming failed, so what runs is what the flash held.
void withdraw_running_version();
