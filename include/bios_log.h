// The daemon's diagnostics: every one goes to the history ring, to the debug print when its category is
// switched on, and to standard output, as "file:line" and the message.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr std::uint32_t BIOS_LOG_EVENT_TYPE = 0x730000;
constexpr std::uint32_t BIOS_LOG_SUBTYPE = 102;
constexpr std::size_t BIOS_LOG_MESSAGE_BYTES = 256; // a longer message is cut

// Writes one message. errno is as before the call when it returns.
//   file, line  base name and line of the caller
[[gnu::format(printf, 3, 4)]] void bios_log(const char *file, int line, const char *format, ...);

#define BIOS_LOG(...) bios_log(__FILE_NAME__, __LINE__, __VA_ARGS__)
