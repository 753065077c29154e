// A flash's open folder, and the short lock under which its small text files are read, changed and replaced.
#pragma once

#include <string>
#include <sys/file.h>

#include "unique_fd.h"

struct flash_folder {
    std::string path; // below the chassis directory
    unique_fd fd;

    std::string file(const char *name) const { return path + "/" + name; }
};

// The folder of a flash; without a descriptor, and with errno, when it cannot be opened.
flash_folder open_flash_folder(unsigned slot, unsigned instance);

// Rewrites a text file of the folder in place, under the lock. In place, because these files change with each
// operation: replacing a file by renaming waits for the disk on some file systems. false with errno.
bool flash_folder_rewrite(const flash_folder &folder, const char *name, const std::string &content);

// Held for the life of the object; waits for the holder of the moment. The contents of the flash are not under
// this lock: a writer owns them by the lock on `data`.
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
