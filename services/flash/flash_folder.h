// The folder of a flash: what is known of it beside its contents, whatever its driver, and the short lock under
// which the small text files are read, changed and replaced.
//
//   writer        the process that writes the flash holds a lock on it
//   programming   present from before the first erase of a programming until its contents were verified
//   progress      how far the last programming is or was, see flash_progress_file.h; absent before the first
//   wear          what was done so far: lines "erases N", "programs N", "reads N"
//   events, events.1   what happened to it, see flash_event_log.h; event_totals: what older events add up to
//   lost_events   how many events could not be written, see flash_lost_events.h
//
// This file uses chassis_dir.h only, so that tools of any word size compile it into themselves.
#pragma once

#include <string>
#include <sys/file.h>

#include "unique_fd.h"

constexpr const char *FLASH_FILE_WRITER = "writer";
constexpr const char *FLASH_FILE_PROGRAMMING = "programming";
constexpr const char *FLASH_FILE_PROGRESS = "progress";
constexpr const char *FLASH_FILE_WEAR = "wear";
constexpr const char *FLASH_FILE_EVENTS = "events";
constexpr const char *FLASH_FILE_OLDER_EVENTS = "events.1";
constexpr const char *FLASH_FILE_EVENT_TOTALS = "event_totals";

// Name below the chassis directory of a flash's folder, and of a file in it. instance: below FLASH_INSTANCE_COUNT.
std::string flash_folder_path(unsigned slot, unsigned instance);
std::string flash_file_path(unsigned slot, unsigned instance, const char *file);

struct flash_folder {
    std::string path; // below the chassis directory
    unique_fd fd;

    std::string file(const char *name) const { return path + "/" + name; }
};

// The folder of a flash; without a descriptor, and with errno, when it cannot be opened.
flash_folder open_flash_folder(unsigned slot, unsigned instance);

// Makes the folder of a flash and those that it lies in, unless they are there, with the file `writer`: a full disk
// keeps nobody from writing later. The folders are on stable storage, so that what is put into them can be. false
// with errno.
[[nodiscard]] bool make_flash_folder(unsigned slot, unsigned instance);

// The file `writer`, made when there is none; a link is not followed. Empty with errno.
[[nodiscard]] unique_fd open_writer_file(const flash_folder &folder);

// Whether the folder at a path has the marker `programming`. Anything but a clear absence counts: a flash of which
// nothing is known must not pass for a whole one.
[[nodiscard]] bool flash_folder_has_marker(const std::string &path);

// Rewrites a text file of the folder in place, under the lock. In place, because these files change with each
// operation: replacing a file by renaming waits for the disk on some file systems. false with errno.
bool flash_folder_rewrite(const flash_folder &folder, const char *name, const std::string &content);

// Held for the life of the object; waits for the holder of the moment. The contents of the flash are not under
// this lock: a writer owns them by the lock on `writer`.
class flash_folder_lock
{
public:
    explicit flash_folder_lock(const flash_folder &folder) : fd_(folder.fd.get()) { (void)::flock(fd_, LOCK_EX); }
    ~flash_folder_lock() { (void)::flock(fd_, LOCK_UN); }
    flash_folder_lock(const flash_folder_lock &) = delete;
    flash_folder_lock &operator=(const flash_folder_lock &) = delete;

private:
    int fd_;
};
