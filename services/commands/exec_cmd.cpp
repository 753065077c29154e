// Command runners. The command is a child of the caller and waited for by its process id, so that other children
// of the caller stay for it to reap; no signal disposition is touched.
#include "exec_cmd.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "c_boundary.h"
#include "spawn_actions.h"
#include "unique_fd.h"
#include "unpacking.h"

namespace
{

constexpr const char *SHELL = "/bin/sh";
constexpr mode_t OUTPUT_FILE_MODE = 0644;
constexpr std::size_t STREAM_COUNT = 3;

// What the command gets as descriptors 0 to 2.
struct command_stream {
    unique_fd fd;           // empty: the caller's own
    bool is_closed = false; // none at all
};
using command_streams = std::array<command_stream, STREAM_COUNT>;

int32_t failure(int error)
{
    errno = error;
    return -1;
}

// A duplicate above the standard streams: otherwise "output to my standard error and the other way round" would
// overwrite one with the other.
unique_fd out_of_the_way(int fd)
{
    return unique_fd(::fcntl(fd, F_DUPFD_CLOEXEC, STREAM_COUNT));
}

bool is_closed(int fd)
{
    return ::fcntl(fd, F_GETFD) < 0 && errno == EBADF;
}

int32_t wait_for(pid_t child)
{
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    return status;
}

// A command that writes beyond its bound ends by the signal for it, also where this process ignores that one.
class spawn_attributes
{
public:
    spawn_attributes()
    {
        sigset_t signals;
        (void)::sigemptyset(&signals);
        (void)::sigaddset(&signals, SIGXFSZ);
        (void)::posix_spawnattr_init(&attributes_); // these three only store what they are given
        (void)::posix_spawnattr_setsigdefault(&attributes_, &signals);
        (void)::posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF);
    }
    ~spawn_attributes() { (void)::posix_spawnattr_destroy(&attributes_); }
    spawn_attributes(const spawn_attributes &) = delete;
    spawn_attributes &operator=(const spawn_attributes &) = delete;

    const posix_spawnattr_t *get() const { return &attributes_; }

private:
    posix_spawnattr_t attributes_{};
};

int32_t run(const char *command, const command_streams &streams)
{
    spawn_actions actions;
    for (std::size_t stream = 0; stream < STREAM_COUNT; ++stream) {
        if (streams[stream].fd)
            actions.connect(streams[stream].fd.get(), static_cast<int>(stream));
        else if (streams[stream].is_closed)
            actions.close(static_cast<int>(stream));
    }
    if (actions.result() != 0)
        return failure(actions.result());

    const std::uint64_t bytes_max = command_file_bytes_max(command);
    std::string bounded = bounded_command(command, bytes_max);
    char name[] = "sh";
    char option[] = "-c";
    char *const arguments[] = {name, option, bounded.data(), nullptr};
    const spawn_attributes attributes;
    pid_t child = -1;
    if (const int error = ::posix_spawn(&child, SHELL, actions.get(), attributes.get(), arguments, environ);
        error != 0)
        return failure(error);
    const int32_t status = wait_for(child);
    clean_up_after(command, status, bytes_max);
    return status;
}

// No input: a pipe that nobody writes to, which also works on a root without "/dev/null".
unique_fd empty_input()
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return unique_fd();
    (void)::close(ends[1]);
    const unique_fd reader(ends[0]);
    return out_of_the_way(reader.get());
}

// Outputs have fixed names in folders where everybody may plant something. A link is not followed, and a FIFO,
// whose reader may keep the command waiting for ever, is refused.
unique_fd open_output(const char *path)
{
    const unique_fd file(::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                                OUTPUT_FILE_MODE));
    struct stat status {
    };
    if (!file || ::fstat(file.get(), &status) != 0)
        return unique_fd();
    if (S_ISFIFO(status.st_mode)) {
        errno = EINVAL;
        return unique_fd();
    }
    (void)::fcntl(file.get(), F_SETFL, O_WRONLY); // the command expects a file that it may wait for
    return out_of_the_way(file.get());
}

unique_fd open_input(const char *path)
{
    const unique_fd file(::open(path, O_RDONLY | O_NOCTTY | O_CLOEXEC));
    return file ? out_of_the_way(file.get()) : unique_fd();
}

} // namespace

int32_t exec_cmd_with_io_print(const char *command, FILE *input, FILE *output, FILE *error, uint32_t)
{
    if (command == nullptr)
        return failure(EINVAL);
    // What the caller printed so far stands before what the command prints.
    (void)::fflush(output != nullptr ? output : stdout);
    (void)::fflush(error != nullptr ? error : stderr);

    FILE *const files[] = {input, output, error};
    command_streams streams;
    // All are looked at before the first duplicate is made, which may get the number of a closed one.
    for (std::size_t stream = 0; stream < STREAM_COUNT; ++stream)
        streams[stream].is_closed = files[stream] != nullptr && is_closed(::fileno(files[stream]));
    for (std::size_t stream = 0; stream < STREAM_COUNT; ++stream) {
        if (files[stream] == nullptr || streams[stream].is_closed)
            continue;
        streams[stream].fd = out_of_the_way(::fileno(files[stream]));
        if (!streams[stream].fd)
            return -1;
    }
    return c_boundary([&] { return run(command, streams); });
}

int32_t exec_cmd_with_files_print(const char *command, const char *input, const char *output, const char *error,
                                  uint32_t)
{
    if (command == nullptr)
        return failure(EINVAL);
    command_streams streams;
    streams[0].fd = input != nullptr ? open_input(input) : empty_input();
    if (!streams[0].fd)
        return -1;
    if (output != nullptr && !(streams[1].fd = open_output(output)))
        return -1;
    // One file for both is opened once; opened twice, the streams would overwrite each other.
    const bool shared = output != nullptr && error != nullptr && std::strcmp(output, error) == 0;
    if (error != nullptr && !(streams[2].fd = shared ? out_of_the_way(streams[1].fd.get()) : open_output(error)))
        return -1;
    return c_boundary([&] { return run(command, streams); });
}
