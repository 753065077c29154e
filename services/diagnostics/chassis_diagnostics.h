// The diagnostics of a card, for tools that look at them from outside:
//
//   slots/SLOT/history            ring of the last events of the card's processes
//   slots/SLOT/debug/categories   names of the debug categories, one per line, written by the card's daemon
//   slots/SLOT/debug/flags        categories that are switched on, words of one line; live
//   slots/SLOT/debug/output       debug messages, one per line with the time; older ones in debug/output.1
//   slots/SLOT/syslog             syslog messages, one per line with the time; older ones in syslog.1
//   slots/SLOT/syslog_level       0 to 7: level of the syslog facility from the daemon's next start on
#pragma once

#include <cstdint>
#include <string>
#include <vector>

constexpr std::uint32_t CHASSIS_OPC_DEBUG_CONTROL = 100; // message that makes a process re-read its debug flags

struct chassis_history_event {
    std::uint64_t sequence; // 1, 2, 3, ...; a gap is an event that was overwritten or cut short
    std::uint64_t time_ns;  // since 1970-01-01 UTC
    std::uint32_t pid;      // of the process that recorded it, as that process sees itself
    std::uint32_t event_type;
    std::string text; // as recorded; may hold any character but NUL
};

// Reads the events of a card, oldest first; events that are being written at this moment are left out.
//   events  replaced on success, else as it was
// false with errno: ENOENT when the card has no history, EBADMSG when its file is no history.
[[nodiscard]] bool chassis_read_history(unsigned slot, std::vector<chassis_history_event> &events);

// Words that the flags of a card may hold: "errors", "warnings", "info".
const std::vector<std::string> &chassis_debug_flag_names();

// Name below the chassis directory of the file that the flags of a card are in.
std::string chassis_debug_flags_path(unsigned slot);

// Reads the categories that are switched on; none when the card has no flags. Unknown words are left out.
[[nodiscard]] std::vector<std::string> chassis_read_debug_flags(unsigned slot);

// Has this process read the categories of its card again before its next debug message.
void chassis_debug_flags_have_changed();

// Replaces the categories that are switched on; takes effect at the next debug message of the card.
// false with errno: EINVAL for an unknown name.
[[nodiscard]] bool chassis_write_debug_flags(unsigned slot, const std::vector<std::string> &names);
