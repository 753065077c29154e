// Making a flash's folder, looking at its marker, and rewriting its small text files.
#include "flash_folder.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "chassis_dir.h"

namespace
{

// The name of a new folder lasts when the folder that it lies in was synced.
bool sync_folder(const std::string &path)
{
    const unique_fd folder(::openat(chassis_dir_fd(), path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder && ::fsync(folder.get()) == 0;
}

} // namespace

std::string flash_folder_path(unsigned slot, unsigned instance)
{
    return chassis_slot_path(slot, instance == 0 ? "flash/primary" : "flash/alternate");
}

std::string flash_file_path(unsigned slot, unsigned instance, const char *file)
{
    return flash_folder_path(slot, instance) + "/" + file;
}

flash_folder open_flash_folder(unsigned slot, unsigned instance)
{
    flash_folder folder;
    folder.path = flash_folder_path(slot, instance);
    folder.fd.reset(::openat(chassis_dir_fd(), folder.path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder;
}

bool make_flash_folder(unsigned slot, unsigned instance)
{
    const std::string path = flash_folder_path(slot, instance);
    std::string above = ".";
    for (std::size_t end = path.find('/');; end = path.find('/', end + 1)) {
        const std::string folder = path.substr(0, end);
        if (::mkdirat(chassis_dir_fd(), folder.c_str(), 0700) == 0 ? !sync_folder(above) : errno != EEXIST)
            return false;
        if (end == std::string::npos)
            return static_cast<bool>(open_writer_file(open_flash_folder(slot, instance)));
        above = folder;
    }
}

unique_fd open_writer_file(const flash_folder &folder)
{
    constexpr int FLAGS = O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    return unique_fd(::openat(folder.fd.get(), FLASH_FILE_WRITER, FLAGS, 0644));
}

bool flash_folder_has_marker(const std::string &path)
{
    const std::string marker = path + "/" + FLASH_FILE_PROGRAMMING;
    return ::faccessat(chassis_dir_fd(), marker.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0 || errno != ENOENT;
}

bool flash_folder_rewrite(const flash_folder &folder, const char *name, const std::string &content)
{
    const unique_fd file(
        ::openat(folder.fd.get(), name, O_WRONLY | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0644));
    const auto length = static_cast<ssize_t>(content.size());
    return file && ::pwrite(file.get(), content.data(), content.size(), 0) == length &&
           ::ftruncate(file.get(), length) == 0;
}
