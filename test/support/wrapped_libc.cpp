// Calls of the C library that reach beyond the process: recorded, answered from the test's script and without
// their effect. The linker's --wrap sends the daemon's calls here (list in test/unit/daemon/CMakeLists.txt).
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <execinfo.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include "daemon_process.h"
#include "record_forms.h"

extern "C" {

pid_t __real_fork();
pid_t __real_waitpid(pid_t pid, int *status_out, int options);
void *__real_malloc(std::size_t length);
void *__real_calloc(std::size_t count, std::size_t length);
int __real_backtrace(void **frames, int size);
char **__real_backtrace_symbols(void *const *frames, int size);
void *__real_mmap(void *address, std::size_t length, int protection, int flags, int fd, off_t offset);
int __real_munmap(void *address, std::size_t length);
ssize_t __real_write(int fd, const void *data, std::size_t length);
int __real_fflush(FILE *file);
void __real_exit(int status) __attribute__((noreturn));

// Processes.

unsigned __wrap_sleep(unsigned seconds)
{
    return static_cast<unsigned>(status(platform().called("sleep", text(seconds))));
}

int __wrap_system(const char *command)
{
    return status(platform().called("system", quoted(command)));
}

pid_t __wrap_fork()
{
    const bool scripted = platform().has_result("fork");
    const scripted_result result = platform().called("fork", "");
    const pid_t pid = scripted ? static_cast<pid_t>(result.value) : __real_fork();
    platform().in_programming_child = pid == 0;
    return pid;
}

// Reports the process that ended with the last scripted receive; without one there is no child, unless a real
// one was forked.
pid_t __wrap_waitpid(pid_t pid, int *status_out, int options)
{
    const std::string option = options == WNOHANG ? "WNOHANG" : text(options);
    const scripted_result result = platform().called("waitpid", joined({text(pid), option}), {-1, ECHILD});
    if (const auto ended = platform().take_ended_process()) {
        *status_out = ended->status;
        return ended->pid;
    }
    if (platform().has_result("waitpid") || platform().has_result("fork"))
        return static_cast<pid_t>(result.value);
    return __real_waitpid(pid, status_out, options);
}

int __wrap_on_exit(void (*handler)(int, void *), void *argument)
{
    const scripted_result result =
        platform().called("on_exit", argument == nullptr ? "handler, null" : "handler, argument");
    if (result.value == 0)
        platform().exit_handlers.emplace_back(handler, argument);
    return status(result);
}

void __wrap_exit(int exit_status)
{
    if (!in_daemon_process())
        __real_exit(exit_status);
    platform().note("exit(" + text(exit_status) + ")");
    end_daemon_process(exit_status);
}

int __wrap_setpriority(int which, id_t who, int priority)
{
    const std::string process = who == static_cast<id_t>(getpid()) || who == 0 ? "own process" : text(who);
    return status(platform().called(
        "setpriority", joined({which == PRIO_PROCESS ? "PRIO_PROCESS" : text(which), process, text(priority)})));
}

FILE *__wrap_popen(const char *command, const char *mode)
{
    const scripted_result result = platform().called("popen", joined({quoted(command), quoted(mode)}));
    if (result.value != 0)
        return nullptr;
    FILE *output = std::tmpfile();
    if (output != nullptr && !platform().command_outputs.empty()) {
        (void)std::fputs(platform().command_outputs.front().c_str(), output);
        std::rewind(output);
        platform().command_outputs.pop_front();
    }
    return output;
}

int __wrap_pclose(FILE *output)
{
    (void)std::fclose(output);
    return status(platform().called("pclose", ""));
}

// Diagnostics.

int __wrap_backtrace(void **frames, int size)
{
    (void)platform().called("backtrace", text(size));
    const int count = __real_backtrace(frames, size);
    return platform().frame_texts.empty() ? count : static_cast<int>(platform().frame_texts.size());
}

// One block, as the C library makes it: the array and the texts behind it.
char **__wrap_backtrace_symbols(void *const *frames, int size)
{
    const scripted_result result = platform().called("backtrace_symbols", "");
    if (result.value != 0)
        return nullptr;
    const auto &texts = platform().frame_texts;
    if (texts.empty())
        return __real_backtrace_symbols(frames, size);
    static constexpr std::size_t text_bytes = 64;
    auto **symbols = static_cast<char **>(__real_calloc(texts.size(), sizeof(char *) + text_bytes));
    char *text_start = reinterpret_cast<char *>(symbols + texts.size());
    for (std::size_t i = 0; i < texts.size(); ++i, text_start += text_bytes)
        symbols[i] = texts[i] ? std::strncpy(text_start, texts[i]->c_str(), text_bytes - 1) : nullptr;
    return symbols;
}

void __wrap_syslog(int priority, const char *format, ...)
{
    std::array<char, 1024> message;
    std::va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(message.data(), message.size(), format, arguments);
    va_end(arguments);
    (void)platform().called("syslog", joined({text(priority), quoted(message.data())}));
}

int __wrap_fflush(FILE *file)
{
    if (current_platform != nullptr && file == stdout)
        platform().note("fflush(stdout)");
    return __real_fflush(file);
}

// Memory. Everything is done as asked unless the test wants it to fail.

void *__wrap_malloc(std::size_t length)
{
    if (current_platform != nullptr && platform().allocation_fails(length)) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_malloc(length);
}

void *__wrap_calloc(std::size_t count, std::size_t length)
{
    if (current_platform != nullptr && platform().allocation_fails(count * length)) {
        errno = ENOMEM;
        return nullptr;
    }
    return __real_calloc(count, length);
}

void *__wrap_mmap(void *address, std::size_t length, int protection, int flags, int fd, off_t offset)
{
    if (current_platform == nullptr || fd < 0)
        return __real_mmap(address, length, protection, flags, fd, offset);
    const std::string use = std::string((protection & PROT_READ) != 0 ? "read " : "") +
                            ((protection & PROT_WRITE) != 0 ? "write " : "") +
                            ((flags & MAP_SHARED) != 0 ? "shared" : "private");
    const scripted_result result =
        platform().called("mmap", joined({hexed(static_cast<std::uint32_t>(length)), use, text(offset)}));
    return result.value != 0 ? MAP_FAILED : __real_mmap(address, length, protection, flags, fd, offset);
}

int __wrap_munmap(void *address, std::size_t length)
{
    if (current_platform != nullptr)
        platform().note("munmap(" + hexed(static_cast<std::uint32_t>(length)) + ")");
    return __real_munmap(address, length);
}

// A scripted result is the number of bytes that are written.
ssize_t __wrap_write(int fd, const void *data, std::size_t length)
{
    if (current_platform == nullptr || !(platform().has_result("write") || platform().record_writes))
        return __real_write(fd, data, length);
    const auto wanted = static_cast<std::int64_t>(length);
    const scripted_result result = platform().called("write", text(wanted), {wanted, 0});
    if (result.value <= 0)
        return static_cast<ssize_t>(result.value);
    return __real_write(fd, data, static_cast<std::size_t>(result.value));
}

} // extern "C"
