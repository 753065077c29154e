#include "daemon_process.h"

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

#include "recording_platform.h"

extern "C" {
int daemon_main(int argument_count, char **arguments) __attribute__((weak)); // only linked where it is run
int __lsan_do_recoverable_leak_check() __attribute__((weak));
void __gcov_dump() __attribute__((weak)); // only there in a build that counts what is executed
pid_t __real_fork();
pid_t __real_waitpid(pid_t pid, int *status, int options);
}

namespace
{

constexpr unsigned daemon_deadline_s = 30;
constexpr int script_end_status = 200;

bool is_daemon_process;

[[noreturn]] void leave(int status)
{
    if (__lsan_do_recoverable_leak_check != nullptr && __lsan_do_recoverable_leak_check() != 0)
        platform().note("memory leak");
    (void)std::fflush(nullptr);
    if (__gcov_dump != nullptr)
        __gcov_dump();
    ::_exit(status & 0xff);
}

[[noreturn]] void be_the_daemon(const std::string &output_path)
{
    is_daemon_process = true;
    (void)::alarm(daemon_deadline_s);
    if (std::freopen(output_path.c_str(), "w", stdout) == nullptr)
        ::_exit(EXIT_FAILURE);
    std::ptrdiff_t descriptors_at_first = 0;
    platform().when("mts_recv(", [&descriptors_at_first] {
        if (descriptors_at_first == 0)
            descriptors_at_first = open_descriptors();
    });
    platform().end_of_script = [&descriptors_at_first] {
        if (open_descriptors() != descriptors_at_first)
            platform().note("descriptor leak");
        leave(script_end_status);
    };
    std::array<char, 12> name{"bios_daemon"};
    std::array<char *, 2> arguments{name.data(), nullptr};
    const int result = daemon_main(1, arguments.data());
    platform().note("main returned " + hexed(static_cast<std::uint32_t>(result)));
    end_daemon_process(result);
}

} // namespace

std::ptrdiff_t open_descriptors()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

bool in_daemon_process()
{
    return is_daemon_process;
}

void end_daemon_process(int status)
{
    auto handlers = std::exchange(platform().exit_handlers, {});
    for (auto handler = handlers.rbegin(); handler != handlers.rend(); ++handler)
        handler->first(status, handler->second);
    leave(status);
}

daemon_end run_daemon()
{
    if (daemon_main == nullptr)
        throw std::logic_error("this test program is linked without the daemon's main");
    const std::string output_file = "/tmp/output";
    (void)std::fflush(nullptr);
    const pid_t pid = __real_fork();
    if (pid < 0)
        throw std::runtime_error("cannot fork the daemon");
    if (pid == 0)
        be_the_daemon(platform().path(output_file));

    int status = 0;
    if (__real_waitpid(pid, &status, 0) != pid)
        throw std::runtime_error("the daemon process was lost");
    daemon_end end;
    end.output = platform().read_file(output_file).value_or("");
    if (WIFSIGNALED(status))
        end.killed_by = ::strsignal(WTERMSIG(status));
    else if (WEXITSTATUS(status) == script_end_status)
        end.script_ended = true;
    else
        end.exit_status = WEXITSTATUS(status);
    return end;
}
