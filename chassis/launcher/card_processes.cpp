#include "card_processes.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <memory>
#include <string>

#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>

#include "process_descriptor.h"
#include "unique_fd.h"

namespace
{

constexpr std::chrono::seconds PATIENCE{5};
constexpr std::chrono::milliseconds PAUSE{5};

struct close_directory {
    void operator()(DIR *directory) const { (void)::closedir(directory); }
};

// A process that has ended and was not reaped yet has no root any more.
bool has_root(int pid, const struct stat &root)
{
    struct stat found = {};
    const std::string path = "/proc/" + std::to_string(pid) + "/root/";
    return ::stat(path.c_str(), &found) == 0 && found.st_dev == root.st_dev && found.st_ino == root.st_ino;
}

bool kill_if_of_root(int pid, const struct stat &root)
{
    if (!has_root(pid, root))
        return false;
    const unique_fd process(::pidfd_open(pid, 0));
    // Asked again, since the number could have become another process's before the descriptor was opened.
    if (process && has_root(pid, root))
        (void)::pidfd_send_signal(process.get(), SIGKILL, nullptr, 0);
    return true;
}

unsigned kill_all_of_root(const struct stat &root)
{
    const std::unique_ptr<DIR, close_directory> processes(::opendir("/proc"));
    if (!processes)
        return 0;
    unsigned found = 0;
    while (const dirent *entry = ::readdir(processes.get())) {
        const int pid = std::atoi(entry->d_name);
        if (pid > 0 && kill_if_of_root(pid, root))
            ++found;
    }
    return found;
}

} // namespace

bool kill_processes_of_root(int root_fd)
{
    struct stat root = {};
    if (::fstat(root_fd, &root) != 0)
        return false;
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    while (kill_all_of_root(root) > 0) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(PAUSE);
    }
    return true;
}
