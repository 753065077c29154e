// The process that changes a flash, or is about to, as the agent of its card knows it: the child of a daemon that
// has ended finishes its work.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

struct flash_writer {
    unsigned slot = 0;
    std::uint32_t pid = 0;  // as the card sees it; 0: not known
    std::string since = {}; // when it was first seen to change the flash; empty: it has not begun to
};

// None when nobody writes, or the card's agent does not answer.
std::optional<flash_writer> find_flash_writer(unsigned slot, unsigned instance);

// Likewise the process on the card of this slot that programs any flash, or waits for the card that does.
std::optional<flash_writer> find_programming_process(unsigned slot);

// "process 41 of slot 2, which has written its flash since 2026-01-31T23:59:59Z"
std::string writer_text(const flash_writer &writer);
