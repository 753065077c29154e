#include "opened_image.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include "image_error.h"

namespace
{

constexpr const char *PLACE = "nbitool";
constexpr const char *MOUNTS = "mnt";
constexpr const char *COMPLETE = "complete\n";
constexpr std::size_t MAX_NAME_CHARACTERS = 63;
constexpr mode_t FOLDER_MODE = 0755;
constexpr mode_t RECORD_MODE = 0600;
constexpr std::size_t MAX_RECORD_BYTES = 256;

// The largest loader, and a little for the folders.
constexpr const char *RAMFS_OPTIONS = "mode=0755,size=65m,nr_inodes=64";

[[noreturn]] void fail(const std::string &what)
{
    throw image_error(what + ": " + std::strerror(errno));
}

unique_fd open_folder(int parent_fd, const char *name)
{
    return unique_fd(::openat(parent_fd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// A folder that nobody but this user has a hand in.
unique_fd open_own_folder(int parent_fd, const char *name)
{
    unique_fd folder = open_folder(parent_fd, name);
    struct stat status = {};
    if (!folder || ::fstat(folder.get(), &status) != 0)
        fail(std::string("folder ") + name);
    if (status.st_uid != ::geteuid() || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        throw image_error(std::string("folder ") + name + ": others may write to it, which makes it unusable");
    return folder;
}

unique_fd make_own_folder(int parent_fd, const char *name)
{
    if (::mkdirat(parent_fd, name, FOLDER_MODE) != 0 && errno != EEXIST)
        fail(std::string("folder ") + name);
    return open_own_folder(parent_fd, name);
}

unique_fd open_top(const std::string &top)
{
    unique_fd folder(::open(top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder)
        fail(top);
    return folder;
}

std::string read_record(int record_fd)
{
    char text[MAX_RECORD_BYTES];
    const ssize_t got = ::pread(record_fd, text, sizeof text, 0);
    return {text, static_cast<std::size_t>(std::max<ssize_t>(got, 0))};
}

void append_to_record(int record_fd, const std::string &text)
{
    if (::lseek(record_fd, 0, SEEK_END) < 0 ||
        ::write(record_fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        fail("record");
}

bool is_complete(const std::string &record)
{
    return record.ends_with(std::string("\n") + COMPLETE);
}

// The record with its lock. No descriptor with errno, EWOULDBLOCK when another process has the lock.
unique_fd lock_record(int place_fd, const std::string &ramfs, int flags)
{
    unique_fd record(
        ::openat(place_fd, ramfs.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | flags, RECORD_MODE));
    struct stat status = {};
    if (!record || ::flock(record.get(), LOCK_EX | LOCK_NB) != 0 || ::fstat(record.get(), &status) != 0)
        return unique_fd();
    if (!S_ISREG(status.st_mode) || status.st_nlink == 0) { // without a name: just closed by another process
        errno = EWOULDBLOCK;
        return unique_fd();
    }
    return record;
}

// Takes a mount point away with what is mounted on it or lies in it.
void remove_mount_point(int mounts_fd, const std::string &mount_point)
{
    // The calls below know no place to begin at but the working folder.
    if (::fchdir(mounts_fd) != 0)
        fail(MOUNTS);
    while (::umount2(mount_point.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW) == 0) {
    }
    std::error_code problem;
    (void)std::filesystem::remove_all(mount_point, problem);
    if (problem)
        throw image_error(mount_point + ": " + problem.message());
}

// Where this process may not mount, the folder stays a plain one.
void mount_ramfs(int folder_fd, const std::string &ramfs)
{
    if (::fchdir(folder_fd) != 0)
        fail("mount point");
    if (::mount(ramfs.c_str(), ".", "tmpfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, RAMFS_OPTIONS) != 0 &&
        errno != EPERM)
        fail("ram file system " + ramfs);
}

} // namespace

void require_plain_name(const std::string &name)
{
    const bool printable = std::all_of(name.begin(), name.end(), [](char c) { return c > 0x20 && c < 0x7f; });
    if (name.empty() || name.size() > MAX_NAME_CHARACTERS || name == "." || name == ".." || name.front() == '-' ||
        name.find('/') != std::string::npos || !printable)
        throw image_error("a name is 1 to 63 printable characters without a slash, and not .. or -...");
}

image_being_opened::image_being_opened(const std::string &top, const std::string &ramfs,
                                       const std::string &mount_point)
    : image_being_opened(ramfs, mount_point) // the object is there from here on: its destructor tidies up
{
    require_plain_name(ramfs);
    require_plain_name(mount_point);
    place_ = make_own_folder(open_top(top).get(), PLACE);
    mounts_ = make_own_folder(place_.get(), MOUNTS);
    take_record();
    make_mount_point();
}

image_being_opened::~image_being_opened()
{
    if (completed_ || !record_)
        return;
    try {
        if (mount_point_made_)
            remove_mount_point(mounts_.get(), mount_point_);
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "nbitool: %s\n", failure.what());
    }
    (void)::unlinkat(place_.get(), ramfs_.c_str(), 0);
}

void image_being_opened::take_record()
{
    unique_fd record = lock_record(place_.get(), ramfs_, O_CREAT);
    if (!record && (errno == EWOULDBLOCK || errno == EISDIR))
        throw image_error(ramfs_ + ": is in use already");
    if (!record)
        fail(ramfs_);
    const std::string left = read_record(record.get());
    if (is_complete(left))
        throw image_error(ramfs_ + ": is open already");
    if (const std::string stale = left.substr(0, left.find('\n')); !stale.empty())
        remove_mount_point(mounts_.get(), stale);
    record_ = std::move(record);
    if (::ftruncate(record_.get(), 0) != 0)
        fail(ramfs_);
    append_to_record(record_.get(), mount_point_ + "\n");
}

void image_being_opened::make_mount_point()
{
    if (::mkdirat(mounts_.get(), mount_point_.c_str(), FOLDER_MODE) != 0) {
        if (errno == EEXIST)
            throw image_error(mount_point_ + ": is in use already");
        fail(mount_point_);
    }
    mount_point_made_ = true;
    mount_ramfs(folder().get(), ramfs_);
}

unique_fd image_being_opened::folder() const
{
    unique_fd folder = open_folder(mounts_.get(), mount_point_.c_str());
    if (!folder)
        fail(mount_point_);
    return folder;
}

void image_being_opened::complete()
{
    append_to_record(record_.get(), COMPLETE);
    completed_ = true;
}

void close_image(const std::string &top, const std::string &ramfs, const std::string &mount_point)
{
    require_plain_name(ramfs);
    require_plain_name(mount_point);
    const unique_fd place = open_own_folder(open_top(top).get(), PLACE);
    const unique_fd mounts = open_own_folder(place.get(), MOUNTS);
    const unique_fd record = lock_record(place.get(), ramfs, 0);
    if (!record && errno == ENOENT)
        throw image_error(ramfs + ": is not open");
    if (!record)
        fail(ramfs);
    if (read_record(record.get()) != mount_point + "\n" + COMPLETE)
        throw image_error(ramfs + ": is not open at " + mount_point);
    remove_mount_point(mounts.get(), mount_point);
    if (::unlinkat(place.get(), ramfs.c_str(), 0) != 0)
        fail(ramfs);
}

unique_fd open_loader(const std::string &top, const std::string &mount_point)
{
    require_plain_name(mount_point);
    unique_fd folder = open_own_folder(open_top(top).get(), PLACE);
    for (const char *name : {MOUNTS, mount_point.c_str(), "etc"})
        folder = open_own_folder(folder.get(), name);
    unique_fd loader(::openat(folder.get(), "srg-sloader.sro", O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status = {};
    if (!loader || ::fstat(loader.get(), &status) != 0)
        fail(mount_point + "/" + LOADER_MEMBER);
    if (!S_ISREG(status.st_mode))
        throw image_error(mount_point + "/" + LOADER_MEMBER + ": is not a regular file");
    return loader;
}
