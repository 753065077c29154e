// A folder tree that is written from outside by a more privileged process than the one that lives in it.
//
// A card's root user may put a link in the place of any folder of its root. So every name is resolved component
// by component below the tree's own folder, and no link is followed, ever. Names are relative ("vesk/sbin"), a
// leading slash is ignored. All functions throw launcher_error.
#pragma once

#include <string>
#include <sys/types.h>

#include "unique_fd.h"

class folder_tree
{
public:
    explicit folder_tree(unique_fd top) : top_(std::move(top)) {}

    int fd() const { return top_.get(); }

    // Opens a folder (O_PATH); with its parents, it is made when it is missing.
    unique_fd open_folder(const std::string &name) const;

    // Makes a folder if need be and gives it its mode.
    void make_folder(const std::string &name, mode_t mode) const;

    // Makes a link unless one is there. What else is there stays.
    void make_link(const std::string &name, const std::string &target) const;

    // Opens (O_PATH) a place for a mount over a file; an empty file is made when nothing is there.
    unique_fd open_file_place(const std::string &name) const;

    // Replaces a file, so that a program that runs from the old one goes on.
    void write_file(const std::string &name, const std::string &contents, mode_t mode) const;

    // The same with the contents of a file of this machine, links of which are followed.
    void copy_file(const std::string &source, const std::string &name, mode_t mode) const;

    // Makes a character device, or an empty file for everyone where devices are not allowed.
    void make_device(const std::string &name, dev_t device) const;

    // Up to limit bytes of a regular file; empty when there is none. Makes nothing.
    std::string read_file(const std::string &name, std::size_t limit) const;

    // Removes a file or a folder with everything in it, if there is one. What cannot be removed stays.
    void remove(const std::string &name) const;

    // Removes a link; false when there is none of that name, or something else.
    bool remove_link(const std::string &name) const;

    // Removes everything in a folder.
    void empty_folder(const std::string &name) const;

private:
    unique_fd walk(const std::string &name, bool make_missing) const;

    unique_fd top_;
};
