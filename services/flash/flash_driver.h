// What a flash driver is: a record of operations on one kind of flash part. The programming procedure and all else
// of services/flash knows flashes through it only; a new kind of part is a folder in drivers/ with one such record.
//
// Concurrency: a process uses a part from one thread. Any number of processes may have a part open for reading, one
// may have it open for writing, for as long as it has it open. What was erased or programmed is there for every
// reader at once, and survives the death of the process; sync makes it survive the death of the card.
//
// Operations that return bool return false with errno:
//   EINVAL  the place does not fit: behind the end, no bytes at all, or across a page (program)
//   EPERM   the sector is protected
//   EBADF   a change through a part that was opened for reading
//   EIO     the part, or the kernel's driver, has failed
// After a failed erase or program the place holds anything; after a failed read the buffer does. Nothing is thrown
// out of an operation but std::bad_alloc.
#pragma once

#include <cstdint>

#include "flash_geometry.h"
#include "flash_wear.h"

struct flash_part; // an opened flash; what it points to is a type of the driver's own, under a name of its own

enum class flash_access : std::uint8_t { read, write };

struct flash_driver {
    const char *name; // of the driver, for people

    // Opens a flash of this card.
    //   instance  0 the primary one, 1 the alternate one
    // Null with errno: EINVAL or ENOENT when the card has no such flash, EBUSY when it has a writer already, EINVAL
    // also when what is known of the flash contradicts itself, for example a list of protected sectors that cannot
    // be understood. Does not wait.
    flash_part *(*open)(unsigned instance, flash_access access);

    // Ends the use, also that of the writer. Never fails.
    void (*close)(flash_part *part);

    // Valid until close; flash_geometry_valid() holds.
    const flash_geometry &(*geometry)(const flash_part *part);

    // Whether erasing and programming would be refused with EPERM. Known before anything is touched.
    // REQUIRES: opened for writing.
    bool (*is_protected)(const flash_part *part, std::uint32_t sector);

    // Sets all bytes of a sector to FLASH_ERASED_BYTE.
    bool (*erase)(flash_part *part, std::uint32_t sector);

    // Clears the bits that are 0 in bytes.
    //   length  at least 1, within one page
    // Whether a bit that is 0 and should become 1 is set, stays, or fails depends on the part: erase first.
    bool (*program)(flash_part *part, std::uint32_t offset, const std::uint8_t *bytes, std::uint32_t length);

    // Reads what the part holds now, never what was written and is still on its way.
    bool (*read)(flash_part *part, std::uint32_t offset, std::uint8_t *bytes_out, std::uint32_t length);

    // Waits until all changes are on stable storage.
    bool (*sync)(flash_part *part);

    // The marker: the flash is being programmed, and its contents are not to be trusted until it is gone. It
    // survives the death of the card. set_marker and clear_marker return when the change is on stable storage, and
    // succeed when nothing was to be changed; a marker that could not be set is not left behind. is_marked is true
    // as well when it cannot be found out.
    bool (*is_marked)(const flash_part *part);
    bool (*set_marker)(flash_part *part);
    bool (*clear_marker)(flash_part *part);

    // How many operations were done since the part was opened.
    const flash_wear &(*wear)(const flash_part *part);
};

// The driver of this program's flashes; which one that is, the build says (drivers/CMakeLists.txt).
extern const flash_driver *const card_flash_driver;
