// Which file a request to install a boot loader may have removed.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "admission.h"

// MTS_OPC_BIOS_INSTALL_LOADER is refused with BIOS_ERR_URI when it would remove a file which is not to be removed.
// The daemon removes the image after an installation, whatever it is: it has to be a regular file in one of the
// folders that the card's policy names, or below one. Nothing is removed while the policy cannot be read.
std::optional<refusal> admit_loader(std::int32_t handle, mts_message_t *message);

// Whether a path is that of a regular file below one of some folders. The file itself is no link; links to folders
// are followed.
bool is_file_below(const std::string &path, const std::vector<std::string> &folders);
