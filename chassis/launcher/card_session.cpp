#include "card_session.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/capability.h>
#include <linux/close_range.h>
#include <poll.h>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "card_files.h"
#include "card_processes.h"
#include "card_root.h"
#include "chassis_dir.h"
#include "launcher_error.h"
#include "programming_child.h"

namespace
{

constexpr int EXIT_NOT_STARTED = 126; // the daemon could not be started at all
constexpr int CHASSIS_FD = 3;         // where the daemon finds the chassis directory
constexpr std::array<const char *, 4> PASSED_ON = {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "TZ"};

void report(int report_fd, session_report::event what, int value)
{
    const session_report message = {what, value};
    (void)::send(report_fd, &message, sizeof message, MSG_NOSIGNAL); // a keeper that is gone takes us with it
}

void restore_signals()
{
    for (const int number : {SIGINT, SIGHUP, SIGPIPE, SIGTERM, SIGUSR1, SIGCHLD})
        (void)std::signal(number, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    (void)::sigprocmask(SIG_SETMASK, &none, nullptr);
}

// Dies with its parent. Had that died before the request was made, its end of the socket is closed.
void die_with_parent(int report_fd)
{
    (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
    pollfd keeper = {report_fd, 0, 0};
    if (::poll(&keeper, 1, 0) > 0)
        ::_exit(EXIT_NOT_STARTED);
}

std::vector<std::string> daemon_environment(unsigned slot)
{
    std::vector<std::string> environment = {
        "PATH=/usr/sbin:/usr/bin:/sbin:/bin:/vesk/sbin",
        "HOME=/root",
        CHASSIS_ENV_DIR_FD + ("=" + std::to_string(CHASSIS_FD)),
        CHASSIS_ENV_SLOT + ("=" + std::to_string(slot)),
    };
    for (const char *name : PASSED_ON) {
        if (const char *value = std::getenv(name); value != nullptr)
            environment.push_back(std::string(name) + "=" + value);
    }
    return environment;
}

[[noreturn]] void fail_to_start(const session_options &options, const char *what)
{
    std::fprintf(stderr, "chassis: %s could not be started: %s: %s\n", program_name(options.program), what,
                 std::strerror(errno));
    ::_exit(EXIT_NOT_STARTED);
}

[[noreturn]] void become_daemon(const card_root &root, const session_options &options)
{
    die_with_parent(options.report_fd);
    (void)::setpgid(0, 0);
    (void)::umask(022);
    std::vector<std::string> environment = daemon_environment(options.slot);
    std::vector<char *> variables;
    variables.reserve(environment.size() + 1);
    for (std::string &variable : environment)
        variables.push_back(variable.data());
    variables.push_back(nullptr);
    const std::string place = place_in_root(options.program);
    std::string name = program_name(options.program);
    char *const arguments[] = {name.data(), nullptr};

    // With no mounts of its own the card must not make any: they would be this machine's, and stay. Not every
    // container lets the right be given up; there it is not there either.
    if (!has_namespaces(options.way))
        (void)::prctl(PR_CAPBSET_DROP, CAP_SYS_ADMIN);
    if (::fchdir(root.fd()) != 0 || ::chroot(".") != 0 || ::chdir("/") != 0)
        fail_to_start(options, "root of the card");
    report(options.report_fd, session_report::event::daemon_started, 0);
    if (::fcntl(STDERR_FILENO, F_GETFD) < 0 || ::dup2(chassis_dir_fd(), CHASSIS_FD) < 0)
        fail_to_start(options, "descriptors");
    if (chassis_dir_fd() == CHASSIS_FD && ::fcntl(CHASSIS_FD, F_SETFD, 0) != 0)
        fail_to_start(options, "descriptors");
    if (::close_range(CHASSIS_FD + 1, ~0U, CLOSE_RANGE_CLOEXEC) != 0)
        fail_to_start(options, "descriptors");
    ::execve(place.c_str(), arguments, variables.data());
    fail_to_start(options, place.c_str());
}

// Reaps whatever ends until the given process has; its wait status.
int reap_until(pid_t wanted)
{
    for (;;) {
        int status = 0;
        const pid_t ended = ::waitpid(-1, &status, 0);
        if (ended == wanted)
            return status;
        if (ended < 0 && errno != EINTR)
            return EXIT_NOT_STARTED << 8;
    }
}

void reap_all()
{
    while (::waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
    }
}

// The daemon's child that programs finishes its work.
void let_child_finish(const session_options &options)
{
    while (programming_child_lives(options.slot) && (::waitpid(-1, nullptr, 0) > 0 || errno == EINTR))
        continue;
}

void kill_the_rest(isolation way)
{
    if (has_namespaces(way))
        (void)::kill(-1, SIGKILL); // everything in the process namespace but this process
    else
        kill_descendants();
    reap_all();
}

void serve_session(const session_options &options)
{
    // Descriptors from before belong to the keeper's mounts; under them neither /proc nor the card's own mounts
    // would be possible.
    open_chassis(options.directory);
    const card_root root(options.slot);
    const bool is_agent = options.program == card_program::agent;
    if (has_namespaces(options.way) && !is_agent && !root.mount_proc())
        std::fprintf(stderr, "chassis: the card has no /proc: %s\n", std::strerror(errno));

    const pid_t daemon = ::fork();
    if (daemon == 0)
        become_daemon(root, options);
    if (daemon < 0)
        throw system_error_of("fork");
    const int status = reap_until(daemon);
    if (!is_agent) {
        if (programming_child_lives(options.slot)) {
            report(options.report_fd, session_report::event::daemon_left, status);
            let_child_finish(options);
        }
        kill_the_rest(options.way);
    }
    report(options.report_fd, session_report::event::daemon_ended, status);
}

} // namespace

void run_session(const session_options &options)
{
    die_with_parent(options.report_fd);
    restore_signals();
    (void)::prctl(PR_SET_NAME, "chassis session");
    (void)::setsid();
    (void)::prctl(PR_SET_CHILD_SUBREAPER, 1);
    try {
        serve_session(options);
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "chassis: %s could not be started: %s\n", program_name(options.program),
                     failure.what());
        ::_exit(EXIT_NOT_STARTED);
    }
    ::_exit(EXIT_SUCCESS);
}
