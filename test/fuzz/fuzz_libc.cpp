// Calls of the C library that reach beyond the process: without effect while the daemon's code runs, real for the
// fuzzer itself. The linker's --wrap sends them here (list in CMakeLists.txt).
#include <cerrno>
#include <csetjmp>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <iterator>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "fuzz_platform.h"

namespace
{

constexpr std::size_t LARGEST_BLOCK_BYTES = 8u << 20;
constexpr int FIRST_CHILD_PID = 4000;

bool allocation_refused(std::size_t length)
{
    if (current_platform == nullptr)
        return false;
    if (length <= LARGEST_BLOCK_BYTES && !platform().fails(ENOMEM))
        return false;
    platform().allocation_failed = true;
    errno = ENOMEM;
    return true;
}

int simple_result(int error)
{
    return platform().fails(error) ? -1 : 0;
}

} // namespace

extern "C" {

FILE *__real_popen(const char *command, const char *mode);
int __real_chdir(const char *path);
int __real_close(int fd);
int __real_dup(int fd);
int __real_dup2(int fd, int number);
int __real_open(const char *path, int flags, ...);
int __real_pclose(FILE *output);
int __real_remove(const char *path);
int __real_setpriority(int which, id_t who, int priority);
int __real_stat(const char *path, struct stat *status_out);
int __real_system(const char *command);
int __real_unlink(const char *path);
pid_t __real_fork();
pid_t __real_waitpid(pid_t pid, int *status_out, int options);
unsigned __real_sleep(unsigned seconds);
void *__real_calloc(std::size_t count, std::size_t length);
void *__real_malloc(std::size_t length);
void __real_exit(int status) __attribute__((noreturn));

// Processes.

unsigned __wrap_sleep(unsigned seconds)
{
    return current_platform == nullptr ? __real_sleep(seconds) : 0;
}

int __wrap_system(const char *command)
{
    if (current_platform == nullptr)
        return __real_system(command);
    platform().expect_command(command);
    return platform().fails(ENOENT) ? 256 : 0;
}

pid_t __wrap_fork()
{
    if (current_platform == nullptr)
        return __real_fork();
    static constexpr fork_outcome OUTCOMES[] = {fork_outcome::parent, fork_outcome::child, fork_outcome::failure};
    const fork_outcome forks = platform().forks;
    switch (forks == fork_outcome::decided ? OUTCOMES[platform().decide(std::size(OUTCOMES))] : forks) {
    case fork_outcome::child:
        platform().in_child = true;
        return 0;
    case fork_outcome::failure:
        errno = EAGAIN;
        return -1;
    default:
        platform().child_pid = FIRST_CHILD_PID;
        return FIRST_CHILD_PID;
    }
}

pid_t __wrap_waitpid(pid_t pid, int *status_out, int options)
{
    if (current_platform == nullptr)
        return __real_waitpid(pid, status_out, options);
    if (platform().child_pid == 0) {
        errno = ECHILD;
        return -1;
    }
    if (platform().decide(4) != 1)
        return 0;
    *status_out = static_cast<int>(platform().decide(256) << 8);
    return std::exchange(platform().child_pid, 0);
}

void __wrap_exit(int status)
{
    if (current_platform == nullptr)
        __real_exit(status);
    require(platform().in_child, "only a child ends");
    platform().leave();
}

int __wrap_setpriority(int which, id_t who, int priority)
{
    return current_platform == nullptr ? __real_setpriority(which, who, priority) : simple_result(EACCES);
}

FILE *__wrap_popen(const char *command, const char *mode)
{
    static char process_id[] = "1234\n";
    if (current_platform == nullptr)
        return __real_popen(command, mode);
    platform().expect_command(command);
    switch (platform().decide(4)) {
    case 1:
        return ::fmemopen(process_id, sizeof process_id - 1, "r");
    case 2:
        return nullptr;
    default:
        return std::fopen("/dev/null", "r");
    }
}

int __wrap_pclose(FILE *output)
{
    return current_platform == nullptr ? __real_pclose(output) : std::fclose(output);
}

// Files.

int __wrap_open(const char *path, int flags, ...)
{
    std::va_list arguments;
    va_start(arguments, flags);
    const unsigned mode = (flags & O_CREAT) != 0 ? va_arg(arguments, unsigned) : 0;
    va_end(arguments);
    if (current_platform == nullptr)
        return __real_open(path, flags, mode);
    if (platform().fails(ENOENT))
        return -1;
    return platform().opened_file(path, flags).release();
}

} // extern "C"

unique_fd real_open(const char *path, int flags)
{
    return unique_fd(__real_open(path, flags));
}

void *real_zeroed_block(std::size_t length)
{
    return __real_calloc(1, length);
}

extern "C" {

int __wrap_unlink(const char *path)
{
    return current_platform == nullptr ? __real_unlink(path) : simple_result(EACCES);
}

int __wrap_remove(const char *path)
{
    return current_platform == nullptr ? __real_remove(path) : simple_result(ENOENT);
}

int __wrap_chdir(const char *path)
{
    return current_platform == nullptr ? __real_chdir(path) : simple_result(ENOENT);
}

int __wrap_stat(const char *path, struct stat *status_out)
{
    if (current_platform == nullptr)
        return __real_stat(path, status_out);
    *status_out = {};
    return simple_result(ENOENT);
}

// The standard streams stay what they are: the fuzzer's report has to come out.

int __wrap_dup(int fd)
{
    return current_platform != nullptr && platform().fails(EMFILE) ? -1 : __real_dup(fd);
}

int __wrap_dup2(int fd, int number)
{
    if (current_platform == nullptr)
        return __real_dup2(fd, number);
    require(number == STDOUT_FILENO || number == STDERR_FILENO, "only the output streams are redirected");
    return platform().fails(EBUSY) ? -1 : number;
}

int __wrap_close(int fd)
{
    if (current_platform == nullptr)
        return __real_close(fd);
    require(fd != STDOUT_FILENO && fd != STDERR_FILENO, "the output streams are not closed");
    return fd == STDIN_FILENO ? 0 : __real_close(fd);
}

// Memory. A large block is refused: what asks for one must be able to do without.

void *__wrap_malloc(std::size_t length)
{
    return allocation_refused(length) ? nullptr : __real_malloc(length);
}

void *__wrap_calloc(std::size_t count, std::size_t length)
{
    return count != 0 && allocation_refused(length * count) ? nullptr : __real_calloc(count, length);
}

} // extern "C"
