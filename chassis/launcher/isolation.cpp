#include "isolation.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "launcher_error.h"
#include "machine_mounts.h"
#include "unique_fd.h"

namespace
{

struct named_isolation {
    isolation way;
    const char *name;
};

constexpr named_isolation NAMES[] = {
    {.way = isolation::automatic, .name = "auto"},
    {.way = isolation::mount, .name = "mount"},
    {.way = isolation::user, .name = "user"},
    {.way = isolation::plain, .name = "plain"},
};

void write_own_file(const char *path, const std::string &text)
{
    const unique_fd file(::open(path, O_WRONLY | O_CLOEXEC));
    if (!file || ::write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        throw system_error_of(path);
}

// Maps the own user and group to root of the new namespace; an ordinary user may map no other.
void map_self_to_root(uid_t user, gid_t group)
{
    write_own_file("/proc/self/setgroups", "deny");
    write_own_file("/proc/self/uid_map", "0 " + std::to_string(user) + " 1\n");
    write_own_file("/proc/self/gid_map", "0 " + std::to_string(group) + " 1\n");
}

void enter_namespaces(isolation way)
{
    const uid_t user = ::geteuid();
    const gid_t group = ::getegid();
    const int wanted = CLONE_NEWNS | (way == isolation::user ? CLONE_NEWUSER : 0);
    if (::unshare(wanted) != 0)
        throw system_error_of("isolation " + isolation_name(way) + ": own namespaces");
    if (way == isolation::user)
        map_self_to_root(user, group);
    // What is mounted from here on stays inside.
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        throw system_error_of("isolation " + isolation_name(way) + ": private mounts");
}

// Runs in a child of its own: does what a card needs once, over a folder that every system has.
bool try_namespaces(isolation way)
{
    try {
        enter_namespaces(way);
        const unique_fd place(::open("/tmp", O_PATH | O_DIRECTORY | O_CLOEXEC));
        mount_from_machine("/usr", place.get());
    } catch (const launcher_error &) {
        return false;
    }
    const int child = fork_into_isolation(way);
    if (child == 0)
        ::_exit(::chroot("/tmp") == 0 ? EXIT_SUCCESS : EXIT_FAILURE);
    int status = 0;
    return child > 0 && ::waitpid(child, &status, 0) == child && status == 0;
}

bool try_plain()
{
    return ::chroot("/") == 0;
}

bool works(isolation way)
{
    if (way == isolation::mount && ::geteuid() != 0)
        return false;
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit((way == isolation::plain ? try_plain() : try_namespaces(way)) ? EXIT_SUCCESS : EXIT_FAILURE);
    int status = 0;
    return child > 0 && ::waitpid(child, &status, 0) == child && status == 0;
}

} // namespace

std::string isolation_name(isolation way)
{
    for (const named_isolation &row : NAMES) {
        if (row.way == way)
            return row.name;
    }
    return "unknown";
}

std::optional<isolation> parse_isolation(const std::string &name)
{
    for (const named_isolation &row : NAMES) {
        if (row.name == name)
            return row.way;
    }
    return std::nullopt;
}

isolation choose_isolation()
{
    for (const isolation way : {isolation::mount, isolation::user, isolation::plain}) {
        if (works(way))
            return way;
    }
    throw launcher_error("no way to give the cards a root of their own: neither mounts nor user namespaces are "
                         "allowed here, and this is not root; allow user namespaces or run as root");
}

void enter_isolation(isolation way)
{
    if (has_namespaces(way))
        enter_namespaces(way);
}

int fork_into_isolation(isolation way)
{
    if (!has_namespaces(way))
        return ::fork();
    // The call itself, as the library's fork cannot ask for namespaces; there are no threads whose locks would be
    // left behind. The own mount namespace of the child takes its /proc away again with it.
    return static_cast<int>(
        ::syscall(SYS_clone, CLONE_NEWPID | CLONE_NEWNS | SIGCHLD, nullptr, nullptr, nullptr, nullptr));
}
