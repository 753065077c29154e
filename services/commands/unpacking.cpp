#include "unpacking.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "c_boundary.h"
#include "flash_device.h"
#include "harmless_path.h"
#include "unique_fd.h"

namespace
{

constexpr std::string_view GUNZIP = "/bin/gunzip ";
constexpr std::string_view COPY = "/bin/cp ";
constexpr std::string_view PACKED_SUFFIX = ".gz";
constexpr std::uint64_t BLOCK_BYTES = 512; // unit of the shell's limit
constexpr int GUNZIP_WARNED = 2;           // its exit status: the data is whole
constexpr int SHELL_SIGNAL_STATUS =
    128; // the shell's exit status for a command that a signal ended, less its number
constexpr mode_t EMPTY_FILE_MODE = 0600;

// Name of the image that "COMMAND ... NAME.gz" makes; empty for any other command.
std::string image_of(std::string_view command, std::string_view words)
{
    if (!command.starts_with(words) || !command.ends_with(PACKED_SUFFIX))
        return {};
    command.remove_suffix(PACKED_SUFFIX.size());
    const std::string name(command.substr(command.rfind(' ') + 1));
    return is_harmless_path(name.c_str()) ? name : std::string();
}

std::uint64_t flash_bytes()
{
    std::uint64_t bytes = 0;
    for (unsigned instance = 0; instance < FLASH_INSTANCE_COUNT; ++instance) {
        if (const auto flash = flash_device::open(instance, flash_access::read); flash)
            bytes = std::max<std::uint64_t>(bytes, flash->geometry().size_bytes);
    }
    return bytes != 0 ? bytes : FLASH_MAX_BYTES;
}

bool has_hit_the_bound(int status)
{
    return WIFSIGNALED(status) ? WTERMSIG(status) == SIGXFSZ
                               : WIFEXITED(status) && WEXITSTATUS(status) == SHELL_SIGNAL_STATUS + SIGXFSZ;
}

void clean_up_gunzip(const std::string &image, int status, std::uint64_t bytes_max)
{
    (void)::unlink((image + std::string(PACKED_SUFFIX)).c_str());
    if (WIFEXITED(status) && WEXITSTATUS(status) == GUNZIP_WARNED)
        return;
    (void)::unlink(image.c_str());
    if (!has_hit_the_bound(status))
        return;
    (void)std::fprintf(stderr, "%s: the image is larger than the flash (%llu bytes) and was not unpacked\n",
                       image.c_str(), static_cast<unsigned long long>(bytes_max));
    const unique_fd empty(
        ::open(image.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, EMPTY_FILE_MODE));
}

} // namespace

std::uint64_t command_file_bytes_max(std::string_view command)
{
    return image_of(command, GUNZIP).empty() ? COMMAND_FILE_BYTES_MAX : flash_bytes();
}

std::string bounded_command(std::string_view command, std::uint64_t bytes_max)
{
    const std::uint64_t blocks = (bytes_max + BLOCK_BYTES - 1) / BLOCK_BYTES;
    // Refused only where the limit is lower already.
    return "ulimit -f " + std::to_string(blocks) + " 2>&-; " + std::string(command);
}

void clean_up_after(std::string_view command, int status, std::uint64_t bytes_max)
{
    if (status == 0)
        return;
    best_effort([&] {
        if (const std::string image = image_of(command, GUNZIP); !image.empty())
            clean_up_gunzip(image, status, bytes_max);
        else if (const std::string copied = image_of(command, COPY); !copied.empty())
            (void)::unlink((copied + std::string(PACKED_SUFFIX)).c_str());
    });
}
