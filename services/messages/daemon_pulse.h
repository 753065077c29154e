// A sign of life of a card's daemon: whenever it looks for messages, at most once a second, the file
// slots/SLOT/pulse gets the time. A daemon that is idle looks every 5 s. One that was stopped or hangs still has
// its endpoint.
#pragma once

#include <cstdint>
#include <optional>

// So long nobody sees that a daemon is silent: it may be busy.
constexpr std::int64_t DAEMON_SILENT_S = 12;

// Of this process's card; errno is as before.
void note_daemon_pulse() noexcept;

// Seconds since the last one; none when there was none yet.
std::optional<std::int64_t> daemon_pulse_age_s(unsigned slot);
