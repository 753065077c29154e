#include "process_memory.h"
#include "rest_of.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <sstream>

namespace
{

std::string proc_file(pid_t process, const std::string &name)
{
    return "/proc/" + std::to_string(process) + "/" + name;
}

// Empty when the process has ended.
std::string content_of(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return rest_of(file);
}

unsigned value_in(const std::string &text, const std::string &name)
{
    std::istringstream lines(text);
    for (std::string word; lines >> word; lines.ignore(std::numeric_limits<std::streamsize>::max(), '\n')) {
        unsigned kib = 0;
        if (word == name + ":" && lines >> kib)
            return kib;
    }
    return 0;
}

bool is_launcher_of(pid_t process, const std::string &directory)
{
    const std::string words = content_of(proc_file(process, "cmdline"));
    return words.find(directory + '\0' + "card") != std::string::npos;
}

} // namespace

unsigned memory_kib(pid_t process, const char *file, const std::string &value)
{
    return value_in(content_of(proc_file(process, file)), value);
}

unsigned resident_kib(pid_t process)
{
    return memory_kib(process, "status", "VmRSS");
}

unsigned private_kib(pid_t process)
{
    const std::string text = content_of(proc_file(process, "smaps_rollup"));
    return value_in(text, "Private_Clean") + value_in(text, "Private_Dirty");
}

unsigned proportional_kib(pid_t process)
{
    return memory_kib(process, "smaps_rollup", "Pss");
}

std::vector<pid_t> processes_of_chassis(const std::string &directory, unsigned last_slot)
{
    std::vector<pid_t> processes;
    for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
        const pid_t process = std::atoi(entry.path().filename().c_str());
        if (process > 0 && is_launcher_of(process, directory))
            processes.push_back(process);
    }
    for (unsigned slot = 1; slot <= last_slot; ++slot) {
        const std::string daemon = content_of(directory + "/slots/" + std::to_string(slot) + "/pid");
        if (!daemon.empty())
            processes.push_back(std::atoi(daemon.c_str()));
    }
    return processes;
}

unsigned long processor_ticks(pid_t process)
{
    // The name in parentheses may hold anything.
    const std::string text = content_of(proc_file(process, "stat"));
    std::istringstream rest(text.substr(std::min(text.rfind(')') + 1, text.size())));
    std::string skipped;
    for (unsigned field = 3; field < 14; ++field)
        rest >> skipped;
    unsigned long user = 0;
    unsigned long system = 0;
    rest >> user >> system;
    return user + system;
}
