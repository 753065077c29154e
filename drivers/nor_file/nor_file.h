// A flash that is a file with the manners of a NOR flash. Erasing sets a whole sector to 0xff, programming only
// clears bits, write-protected sectors refuse both. Its files are described in nor_file_layout.h.
//
// Concurrency: one writer at a time, in any process, for the life of its object; readers at any time. What was
// erased or programmed is there for all others at once and survives the death of the process; sync() makes it
// survive the death of the machine. Protection and timing are those at the time of opening, faults are live.
//
// All operations: false with errno, EINVAL when the place does not fit (beyond the end, across a page), EPERM for
// a protected sector, EBADF for a change by a reader, EIO on demand (flash_faults.h).
//
// What a driver must never ask of a part is noted in the file `violations`, a line each: a place that does not fit,
// a change by a reader, and a program that would have to set bits. Real parts accept some of it without a word.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "flash_driver.h"
#include "flash_faults.h"
#include "flash_state.h"
#include "flash_timing.h"
#include "nor_file_layout.h"

class nor_file
{
public:
    // Opens a flash of a card.
    // Null with errno: ENOENT when there is no such flash, EBUSY when it has a writer already, EINVAL when its
    // files contradict each other (also a list of protected sectors that cannot be read, for a writer).
    static std::unique_ptr<nor_file> open(unsigned slot, unsigned instance, flash_access access);
    ~nor_file();
    nor_file(const nor_file &) = delete;
    nor_file &operator=(const nor_file &) = delete;

    const flash_geometry &geometry() const { return geometry_; }
    std::uint32_t sector_count() const { return geometry_.size_bytes / geometry_.sector_bytes; }
    const flash_wear &wear() const { return state_.wear(); } // operations of this opening so far
    bool is_protected(std::uint32_t sector) const { return sector < protected_.size() && protected_[sector]; }

    [[nodiscard]] bool erase(std::uint32_t sector);

    // Clears the bits that are 0 in bytes; bits that would have to be set stay 0 and the call still succeeds, as
    // on a real part: reading back is what finds it, and the violation is noted. length: at least 1, within one
    // page.
    [[nodiscard]] bool program(std::uint32_t offset, const std::uint8_t *bytes, std::uint32_t length);

    [[nodiscard]] bool read(std::uint32_t offset, std::uint8_t *bytes_out, std::uint32_t length);

    // Waits until all changes are on stable storage.
    [[nodiscard]] bool sync();

    // The marker `programming`. Setting and clearing wait until the change is on stable storage and succeed when
    // nothing is to be changed; a marker that could not be set is not left behind.
    [[nodiscard]] bool is_marked() const { return state_.is_marked(); }
    [[nodiscard]] bool set_marker();
    [[nodiscard]] bool clear_marker();

    // Asked once for each operation, before it is done, with its sector (0 for the marker); in place of the flash's
    // own file of rules.
    using fault_source = std::function<flash_fault_order(flash_operation, std::uint32_t sector)>;
    void set_fault_source(fault_source source) { next_fault_ = std::move(source); }

private:
    nor_file() : timing_(false) {}

    bool open_files(unsigned slot, unsigned instance, flash_access access);
    bool load_geometry();
    bool load_protected();
    bool map();
    const flash_folder &folder() const { return state_.folder(); }
    bool fits(std::uint32_t offset, std::uint32_t length) const;
    bool may_change(std::uint32_t sector, const char *wanted) const;
    void work_on(std::uint32_t sector);
    bool refuse_violation(int reason, const char *wanted, std::uint32_t place) const;
    void note_violation(const char *wanted, std::uint32_t place) const;
    template<class apply>
    bool perform(flash_operation operation, std::uint32_t sector, std::uint32_t amount, apply &&change);
    [[noreturn]] void die(bool hold);

    flash_state state_;
    unique_fd data_file_;
    flash_geometry geometry_;
    std::uint8_t *data_ = nullptr; // of a writer: shared mapping of the whole flash
    std::uint32_t worked_on_ = 0;  // sector that was changed last
    std::vector<bool> protected_;  // by sector; empty for a reader
    flash_timing timing_;
    fault_source next_fault_;
};
