#include "client_processes.h"

#include <csignal>
#include <cstdio>
#include <exception>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

[[noreturn]] void become_client(const std::function<void(unsigned)> &work, unsigned number)
{
    (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
    int result = 0;
    try {
        work(number);
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "client %u: %s\n", number, failure.what());
        result = 1;
    }
    ::_exit(result);
}

} // namespace

client_processes::client_processes(unsigned count, const std::function<void(unsigned)> &work)
{
    (void)std::fflush(nullptr);
    for (unsigned number = 0; number < count; ++number) {
        const pid_t pid = ::fork();
        if (pid == 0)
            become_client(work, number);
        if (pid < 0)
            throw std::system_error(errno, std::generic_category(), "fork");
        pids_.push_back(pid);
    }
}

client_processes::~client_processes()
{
    for (const pid_t pid : pids_) {
        (void)::kill(pid, SIGKILL);
        (void)::waitpid(pid, nullptr, 0);
    }
}

unsigned client_processes::running()
{
    std::erase_if(pids_, [&](pid_t pid) {
        int status = 0;
        if (::waitpid(pid, &status, WNOHANG) != pid)
            return false;
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
            ++failed_;
        return true;
    });
    return static_cast<unsigned>(pids_.size());
}
