#include "started_process.h"

#include <csignal>
#include <fcntl.h>
#include <linux/close_range.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr int INHERITED_FD = 3;
constexpr int EXIT_NOT_STARTED = 126;

std::vector<char *> pointers_to(const std::vector<std::string> &words)
{
    std::vector<char *> pointers;
    for (const std::string &word : words)
        pointers.push_back(const_cast<char *>(word.c_str())); // execve changes none
    pointers.push_back(nullptr);
    return pointers;
}

bool take_streams(const start_plan &plan)
{
    const int input = ::open("/dev/null", O_RDONLY);
    const int output = ::open(plan.output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    return ::dup2(input, STDIN_FILENO) >= 0 && ::dup2(output, STDOUT_FILENO) >= 0 &&
           ::dup2(output, STDERR_FILENO) >= 0;
}

bool take_descriptor(int inherited)
{
    if (inherited == INHERITED_FD)
        return ::fcntl(INHERITED_FD, F_SETFD, 0) == 0;
    return inherited < 0 || ::dup2(inherited, INHERITED_FD) >= 0;
}

} // namespace

started_process::started_process(const start_plan &plan)
{
    std::vector<std::string> words = {plan.program};
    words.insert(words.end(), plan.further_words.begin(), plan.further_words.end());
    const std::vector<char *> arguments = pointers_to(words);
    const std::vector<char *> environment = pointers_to(plan.environment);
    number_ = ::fork();
    if (number_ < 0)
        throw std::runtime_error("fork");
    if (number_ != 0)
        return;
    (void)::close_range(INHERITED_FD, ~0U, CLOSE_RANGE_CLOEXEC);
    if (take_streams(plan) && take_descriptor(plan.inherited_fd) &&
        (plan.root.empty() || ::chroot(plan.root.c_str()) == 0) && ::chdir("/") == 0)
        ::execve(plan.program.c_str(), arguments.data(), environment.data());
    ::_exit(EXIT_NOT_STARTED);
}

started_process::~started_process()
{
    if (reaped_)
        return;
    (void)::kill(number_, SIGKILL);
    (void)::waitpid(number_, nullptr, 0);
}

bool started_process::has_ended()
{
    if (!reaped_)
        reaped_ = ::waitpid(number_, &status_, WNOHANG) == number_;
    return reaped_;
}

void started_process::await_success()
{
    if (!reaped_)
        reaped_ = ::waitpid(number_, &status_, 0) == number_;
    if (status_ != 0)
        throw std::runtime_error("a program that was started failed");
}
