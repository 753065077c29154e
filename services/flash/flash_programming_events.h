// What the flash service writes into a flash's event log.
//
// The service sees attempts and erases; which of them make one programming is told by their order in this process:
// each request is worked on by a process of its own. A programming has ended when an attempt has found the flash
// equal; after a failure, when the process begins another programming or ends by exit(), as then nobody tries
// again. A process that is killed leaves a programming without an end: whoever finds the flash marked and without a
// writer next, another programming or a daemon that reads the version, notes it as cut off.
//
// The log is diagnostics: what cannot be written is counted as lost and told to the card's syslog, nothing is
// thrown, and errno stays as it was.
#pragma once

#include <cstdint>

#include "flash_device.h"
#include "flash_image.h"

// An attempt at programming a flash, or the erase before the first one.
class flash_attempt_events
{
public:
    // REQUIRES: flash is open for writing, and outlives the object.
    flash_attempt_events(const flash_device &flash, std::uint32_t instance, std::uint32_t attempt,
                         const flash_image &image) noexcept;
    flash_attempt_events(const flash_device &flash, std::uint32_t instance) noexcept; // an erase
    ~flash_attempt_events(); // no result: it was left by an exception, for want of memory
    flash_attempt_events(const flash_attempt_events &) = delete;
    flash_attempt_events &operator=(const flash_attempt_events &) = delete;

    // Notes how it has ended, and gives the result back.
    std::int32_t ended(std::int32_t result) noexcept;

private:
    const flash_device &flash_;
    std::uint32_t instance_;
    std::uint32_t attempt_; // 0: an erase
    bool was_marked_;
    bool has_ended_ = false;
    std::uint64_t begun_ms_;
};

// Notes that an attempt did not get to the flash, and gives the result back.
std::int32_t flash_attempt_refused(std::uint32_t instance, std::uint32_t attempt, std::int32_t result) noexcept;

// Notes that a flash was found marked, when nobody is at work on it and the log does not say why. Once in a
// process.
void flash_found_marked(std::uint32_t instance) noexcept;
