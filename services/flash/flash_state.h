// What is kept of a flash beside its contents, in its folder: who writes it, the marker, the wear. Each driver has
// one in what it has opened, whatever its parts are.
//
// The writer holds a lock on the file `writer`, which everybody sees and which ends with its process. The marker is
// the file `programming`. All operations that return bool return false with errno.
#pragma once

#include "flash_driver.h"
#include "flash_folder.h"

// How long setting and clearing the marker take: until the change is on stable storage. A driver that plays the
// death of a card leaves that out.
enum class flash_marker_wait : std::uint8_t { none, stable_storage };

class flash_state
{
public:
    flash_state() = default;
    ~flash_state(); // adds the wear to the totals of the flash
    flash_state(const flash_state &) = delete;
    flash_state &operator=(const flash_state &) = delete;

    // For a flash of a slot. false when its folder cannot be opened, with ENOENT when there is none: the marker can
    // be looked for all the same, and a flash without a folder has none.
    [[nodiscard]] bool open(unsigned slot, unsigned instance);

    // Makes this object the writer of the flash for the rest of its life. EBUSY: there is one, in any process, this
    // one included. REQUIRES: open() has returned true.
    [[nodiscard]] bool become_writer();
    bool is_writer() const { return static_cast<bool>(writer_); }

    const flash_folder &folder() const { return folder_; }

    // As of flash_driver.h. EBADF when this object is not the writer. A marker that could not be set is not left
    // behind.
    [[nodiscard]] bool is_marked() const { return flash_folder_has_marker(folder_.path); }
    [[nodiscard]] bool set_marker(flash_marker_wait wait = flash_marker_wait::stable_storage);
    [[nodiscard]] bool clear_marker(flash_marker_wait wait = flash_marker_wait::stable_storage);

    // Operations since the flash was opened, for the driver to count. save_wear() adds them to the totals now and
    // begins anew: for a driver that is about to die.
    flash_wear &wear() { return wear_; }
    const flash_wear &wear() const { return wear_; }
    void save_wear() { flash_wear_add(folder_, wear_); }

private:
    flash_folder folder_;
    unique_fd writer_;
    flash_wear wear_;
};
