#include "timed_process.h"

#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include "spawn_actions.h"

double run_timed_ms(const std::vector<std::string> &command)
{
    std::vector<char *> arguments;
    for (const std::string &word : command)
        arguments.push_back(const_cast<char *>(word.c_str())); // posix_spawn changes none
    arguments.push_back(nullptr);

    spawn_actions to_nowhere;
    to_nowhere.open("/dev/null", O_WRONLY, STDOUT_FILENO);
    int status = -1;
    bool ran = false;
    const double took = timed_ms([&] {
        pid_t process = -1;
        ran = to_nowhere.result() == 0 &&
              ::posix_spawnp(&process, arguments[0], to_nowhere.get(), nullptr, arguments.data(), environ) == 0 &&
              ::waitpid(process, &status, 0) == process;
    });
    if (!ran || status != 0)
        throw std::runtime_error(command[0] + " failed");
    return took;
}

bench_folder::bench_folder() : path_(std::filesystem::path("/var/tmp") / "bios_daemon_bench.XXXXXX")
{
    if (::mkdtemp(path_.data()) == nullptr)
        throw std::runtime_error("cannot make " + path_);
}

bench_folder::~bench_folder()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}
