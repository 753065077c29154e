// Files that a person or a tool may change at any time, and that are wanted with every message or log line: looked
// at only when they may have changed.
//
// The system notes changes of the files and of the folders on the way to them (inotify). The notes are fetched at
// most once per tick of the system's coarse clock, so that a process that asks often is told of a change up to 10
// ms late (4 ms where the clock ticks 250 times a second), and one that was idle at once. A process that has asked
// seldom, such as a tool, and one that cannot have notes because its user has too many, is told each time that the
// file may have changed.
//
// Changes through a mapping are not noted. Not for several threads; a forked child begins anew.
#pragma once

#include <cstdint>
#include <string>

class watched_file
{
public:
    // path  below the chassis directory; neither it nor its folders need to be there
    explicit watched_file(std::string path);
    ~watched_file();
    watched_file(const watched_file &) = delete;
    watched_file &operator=(const watched_file &) = delete;

    const std::string &path() const { return path_; }

    // Whether the file may have been made, changed, replaced or removed since the last call; true at the first one.
    // Keeps errno.
    [[nodiscard]] bool may_have_changed();

private:
    std::string path_;
    std::uint64_t seen_ = 0; // the state of the watch at the last call
};

// Has all files looked at anew: they are those of another chassis now.
void watched_files_restart();
