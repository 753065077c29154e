// The kernel's list of MTDs, and what it says of one of them there.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "mtd_calls.h"

// The MTD that has a name, as "mtd0". Nothing with errno and a text for a person: ENOENT when none has it, EINVAL
// when several have it, or that of the system call that failed.
[[nodiscard]] std::optional<std::string> mtd_named(const mtd_calls &calls, const std::string &name,
                                                   std::string &problem);

// An attribute of an MTD, its line without the newline. Nothing when it cannot be read.
[[nodiscard]] std::optional<std::string> mtd_attribute(const mtd_calls &calls, const std::string &mtd,
                                                       const char *attribute);

// Likewise, of one that is a decimal number.
[[nodiscard]] std::optional<std::uint64_t> mtd_number_attribute(const mtd_calls &calls, const std::string &mtd,
                                                                const char *attribute);
