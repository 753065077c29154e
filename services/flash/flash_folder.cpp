// Rewriting the small text files of a flash's folder.
#include "flash_folder.h"

#include <fcntl.h>
#include <unistd.h>

#include "chassis_dir.h"

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

bool flash_folder_rewrite(const flash_folder &folder, const char *name, const std::string &content)
{
    const unique_fd file(
        ::openat(folder.fd.get(), name, O_WRONLY | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0644));
    const auto length = static_cast<ssize_t>(content.size());
    return file && ::pwrite(file.get(), content.data(), content.size(), 0) == length &&
           ::ftruncate(file.get(), length) == 0;
}
