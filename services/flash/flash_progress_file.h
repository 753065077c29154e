// How far the programming of a flash is, for whoever looks: the file `progress` in the flash's folder.
//
// One line of fixed length, written over the one before: "PHASE PERCENT ATTEMPT PID SINCE CHECK". PHASE is erase,
// write or verify; PERCENT is that of the attempt; ATTEMPT 0 is none in particular; PID is the writer as it sees
// itself; SINCE tells when it began; CHECK is a checksum of the line before it, by which a reader knows a whole
// line.
//
// The writer keeps a record lock of the system on the file until it ends: a line that nobody holds is left over
// from a process that has ended, in whatever way. Reading takes no lock and holds nobody up.
//
// Uses chassis_dir.h and flash_layout.h only, so that tools compile it into themselves.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "bios_messages.h"

struct flash_progress_line {
    bios_programming_phase phase = BIOS_PHASE_ERASE;
    std::uint32_t percent = 0; // 0..100
    std::uint32_t attempt = 0; // at most FLASH_PROGRESS_ATTEMPT_MAX
    std::uint32_t pid = 0;
    std::string since; // UTC, "2026-01-31T23:59:59Z"

    bool operator==(const flash_progress_line &) const = default;
};

constexpr std::uint32_t FLASH_PROGRESS_ATTEMPT_MAX = 999; // a greater number is told as this one

// The line with its newline, and back; none for anything that format does not give.
std::string flash_progress_format(const flash_progress_line &line);
std::optional<flash_progress_line> flash_progress_parse(std::string_view text);

// Tells how far this process is. REQUIRES: this process has the flash open for writing. The file is diagnostics:
// what cannot be written is left out, and nothing is thrown.
void flash_progress_note(unsigned slot, unsigned instance, bios_programming_phase phase, std::uint32_t percent,
                         std::uint32_t attempt) noexcept;

// What a flash's files tell of it. REQUIRES: this process has not noted any progress; its lock would go.
struct flash_activity {
    bool marked = false;     // its programming was begun, and it was not found equal to the image since
    bool has_writer = false; // a process changes it now, or has done so and has not ended yet
    std::optional<flash_progress_line> last; // of the writer; without one that of the last there was

    bool operator==(const flash_activity &) const = default;
};
flash_activity flash_activity_of(unsigned slot, unsigned instance);
