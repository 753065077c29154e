// The version in a module's flash, as the agent of its card reads it.
#pragma once

#include <string>

// Of the module's first flash; empty when the agent does not answer, when the flash has no version, and when it is
// being changed or not verified.
std::string read_flash_version(unsigned module);
