#include "card_processes.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

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

// As /proc/PID/stat tells; 0 when it cannot be read.
int parent_of(int pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(file, line);
    const std::size_t name_end = line.rfind(") ");
    int parent = 0;
    if (name_end == std::string::npos || std::sscanf(line.c_str() + name_end, ") %*c %d", &parent) != 1)
        return 0;
    return parent;
}

// The number of a child that was not reaped is nobody else's.
void kill_children()
{
    const std::unique_ptr<DIR, close_directory> processes(::opendir("/proc"));
    const int own = ::getpid();
    while (const dirent *entry = processes ? ::readdir(processes.get()) : nullptr) {
        const int pid = std::atoi(entry->d_name);
        if (pid > 0 && parent_of(pid) == own)
            (void)::kill(pid, SIGKILL);
    }
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

void kill_descendants()
{
    do {
        kill_children();
    } while (::waitpid(-1, nullptr, 0) > 0 || errno == EINTR);
}
