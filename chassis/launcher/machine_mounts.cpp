#include "machine_mounts.h"

#include <fcntl.h>
#include <sys/mount.h>

#include "launcher_error.h"
#include "unique_fd.h"

void mount_from_machine(const std::string &source, int place_fd)
{
    const unique_fd copy(::open_tree(AT_FDCWD, source.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE));
    if (!copy)
        throw system_error_of("mount of " + source);
    struct mount_attr attributes = {};
    attributes.attr_set = MOUNT_ATTR_RDONLY;
    (void)::mount_setattr(copy.get(), "", AT_EMPTY_PATH | AT_RECURSIVE, &attributes, sizeof attributes);
    if (::move_mount(copy.get(), "", place_fd, "", MOVE_MOUNT_F_EMPTY_PATH | MOVE_MOUNT_T_EMPTY_PATH) != 0)
        throw system_error_of("mount of " + source);
}

void mount_memory(int place_fd, unsigned size_mib)
{
    const std::string place = "/proc/self/fd/" + std::to_string(place_fd);
    const std::string options = "mode=0755,size=" + std::to_string(size_mib) + "m";
    if (::mount("tmpfs", place.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) != 0)
        throw system_error_of("mount of a file system of " + std::to_string(size_mib) + " MiB");
}
