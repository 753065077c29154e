#include "card_surroundings.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "unique_fd.h"

namespace
{

[[noreturn]] void fail(const std::string &what)
{
    throw std::runtime_error("surroundings of the daemon: " + what + ": " + std::strerror(errno));
}

unique_fd opened(const std::string &path, int flags)
{
    unique_fd file(::open(path.c_str(), flags | O_CLOEXEC));
    if (!file)
        fail(path);
    return file;
}

void enter_namespaces(const std::string &folder)
{
    for (const char *name : {"user", "pid", "mnt"}) {
        const std::string path = folder + "/ns/" + name;
        if (std::filesystem::read_symlink(path) ==
            std::filesystem::read_symlink(std::string("/proc/self/ns/") + name))
            continue;
        const unique_fd its = opened(path, O_RDONLY);
        if (::setns(its.get(), 0) != 0)
            fail(path);
    }
}

void take_environment(const std::string &folder)
{
    std::ifstream file(folder + "/environ", std::ios::binary);
    std::vector<std::string> variables;
    for (std::string variable; std::getline(file, variable, '\0');)
        variables.push_back(variable);
    (void)::clearenv();
    for (const std::string &variable : variables) {
        const std::size_t equals = variable.find('=');
        (void)::setenv(variable.substr(0, equals).c_str(), variable.substr(equals + 1).c_str(), 1);
    }
}

} // namespace

void enter_surroundings(pid_t process)
{
    const std::string folder = "/proc/" + std::to_string(process);
    take_environment(folder);
    const unique_fd root = opened(folder + "/root", O_PATH | O_DIRECTORY);
    enter_namespaces(folder);
    if (::fchdir(root.get()) != 0 || ::chroot(".") != 0 || ::chdir("/") != 0)
        fail("root");
    // A namespace of processes is only entered by children.
    const pid_t child = ::fork();
    if (child < 0)
        fail("fork");
    if (child > 0) {
        (void)::close_range(0, ~0U, 0); // the child alone holds what is open
        (void)::waitpid(child, nullptr, 0);
        ::_exit(EXIT_SUCCESS);
    }
    (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
}
