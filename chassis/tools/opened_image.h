// Where nbitool lays what it unpacks:
//
//   TOP/nbitool/mnt/MNTPT   the opened image, a ram file system with the name RAMFS; a plain folder in a card
//                           that may not mount
//   TOP/nbitool/RAMFS       record: the name of the mount point, and "complete" when the image is open
//
// TOP is /tmp, where everybody may make folders and links. The folders nbitool and mnt are taken only when they
// belong to this user and nobody else may write to them; no link is followed. They stay when the last image is
// closed: another process may be opening one.
#pragma once

#include <string>

#include "unique_fd.h"

constexpr const char *NBITOOL_TOP = "/tmp";
constexpr const char *LOADER_MEMBER = "etc/srg-sloader.sro"; // of a system image, and of an opened one

// Throws image_error unless the text can be the name of a ram file system or of a mount point: 1 to 63 printable
// characters, no slash, neither "." nor "..", no dash in front.
void require_plain_name(const std::string &name);

// An image while it is being opened. What was made for it goes with the object unless it was completed.
class image_being_opened
{
public:
    // Makes the record, the mount point and the ram file system. Throws image_error; also when one of the names is
    // in use. What a process that was killed has left half open is taken away first.
    image_being_opened(const std::string &top, const std::string &ramfs, const std::string &mount_point);
    image_being_opened(const image_being_opened &) = delete;
    image_being_opened &operator=(const image_being_opened &) = delete;
    ~image_being_opened();

    // The mount point, for the unpacked files.
    unique_fd folder() const;

    // The image is open from now on. Throws image_error.
    void complete();

private:
    image_being_opened(const std::string &ramfs, const std::string &mount_point)
        : ramfs_(ramfs),
          mount_point_(mount_point)
    {
    }
    void take_record();
    void make_mount_point();

    unique_fd place_;  // TOP/nbitool
    unique_fd mounts_; // TOP/nbitool/mnt
    unique_fd record_; // locked, so that others see that somebody is at it
    std::string ramfs_;
    std::string mount_point_;
    bool mount_point_made_ = false;
    bool completed_ = false;
};

// Takes an open image away. Throws image_error when it is not open under these two names.
void close_image(const std::string &top, const std::string &ramfs, const std::string &mount_point);

// Opens the loader file of an open image for reading. Throws image_error.
unique_fd open_loader(const std::string &top, const std::string &mount_point);
