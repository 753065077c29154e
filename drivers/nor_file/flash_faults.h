// Faults on demand: what a flash is told to do wrong. The file `faults` of a flash holds one rule a line,
//
//     <fail|lie|part|flip|stop|torn|after> <erase|program|read|marker> <n|always> [count] [hold]
//     random <fail|lie|part|flip> <erase|program|read|marker> <percent>% <seed>
//
//   fail   the operation fails (EIO) and does nothing
//   lie    the operation tells success and does nothing
//   part   the operation tells success and does its first half only: a short read, a page partly written
//   flip   the operation tells success, but one bit is wrong: read as the other one, left 0 by an erase, not
//          written or written too much by a program
//   stop   the process kills itself (SIGKILL) before the operation
//   torn   the operation is done by half, then the process kills itself
//   after  the operation is done, then the process kills itself before it knows
//   n      the n-th operation of that kind from now on, 1 the next; always: each one, until the line is removed
//   count  how many operations in a row from there on, 1 when left out; has no meaning for always
//   hold   the process stands still (SIGSTOP) where it would kill itself, for others to end it together with what
//          they like: its daemon, its card; one that is continued kills itself
//   random each operation of that kind fails with that probability, 0.001 to 100; the same seed and the same
//          operations give the same faults
//
// "fail erase 3 2" fails the third and the fourth erase. The rules live: each operation reads them anew and counts
// them down in the file itself ("fail erase 3" reads "fail erase 2" after one erase; the seed of a random rule is
// replaced by the next one), so that they count across attempts and processes, and a rule that has happened is
// gone. Of rules due at the same operation the first line happens; the others wait for the next, random ones do
// not. Empty lines and lines with '#' stay; a line that is no rule is marked as "# not understood: ". The file is
// looked for at each operation, except for programs of the sector that was programmed last: a first rule written
// meanwhile is seen at the next sector. A line written at the very moment of an operation may be lost: write rules
// while the flash is idle, or look afterwards.
//
// One operation is one sector erased, one page programmed, one read call (the flash service reads by sectors), one
// setting or clearing of the marker `programming`, which has neither parts nor bits: part and flip are no faults
// of it.
#pragma once

#include <cstdint>
#include <optional>

struct flash_folder;

enum class flash_operation : std::uint8_t { erase, program, read, marker };
enum class flash_fault : std::uint8_t { none, fail, lie, part, flip, stop, torn, after };

// What is to happen to one operation.
struct flash_fault_order {
    flash_fault_order(flash_fault ordered) : fault(ordered) {} // NOLINT(google-explicit-constructor)

    flash_fault fault;
    bool hold = false;       // in place of dying
    std::uint64_t noise = 0; // flip: which bit, by the remainder
};

// The rules of one flash, as one opening of it sees them.
class flash_fault_rules
{
public:
    // folder: of the flash, outlives the object
    explicit flash_fault_rules(const flash_folder &folder) : folder_(folder) {}

    // Counts one operation against the rules and tells what is to happen to it.
    //   sector  in which it is done; 0 for the marker
    [[nodiscard]] flash_fault_order take(flash_operation operation, std::uint32_t sector);

private:
    bool is_known_absent(flash_operation operation, std::uint32_t sector) const;

    const flash_folder &folder_;
    std::optional<std::uint32_t> quiet_sector_; // being programmed, without a file of rules at its first page
};
