#include "run_program.h"

#include <csignal>
#include <fcntl.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/wait.h>

#include "wait_until.h"

namespace
{

std::string content_of(const unique_fd &file)
{
    std::string content;
    char piece[4096];
    off_t place = 0;
    for (;;) {
        const ssize_t got = ::pread(file.get(), piece, sizeof piece, place);
        if (got <= 0)
            return content;
        content.append(piece, static_cast<std::size_t>(got));
        place += got;
    }
}

// Runs between fork and exec.
[[noreturn]] void become(const std::vector<std::string> &words, int output, int errors)
{
    std::vector<char *> arguments;
    for (const std::string &word : words)
        arguments.push_back(const_cast<char *>(word.c_str())); // execvp changes none
    arguments.push_back(nullptr);
    const int input = ::open("/dev/null", O_RDONLY);
    if (::dup2(input, STDIN_FILENO) >= 0 && ::dup2(output, STDOUT_FILENO) >= 0 &&
        ::dup2(errors, STDERR_FILENO) >= 0)
        ::execvp(arguments.front(), arguments.data());
    ::_exit(127);
}

} // namespace

running_program::running_program(const std::vector<std::string> &words)
    : output_(::memfd_create("output", MFD_CLOEXEC)),
      errors_(::memfd_create("errors", MFD_CLOEXEC))
{
    // Both are appended to, as the program's own children write to them too.
    (void)::fcntl(output_.get(), F_SETFL, O_APPEND);
    (void)::fcntl(errors_.get(), F_SETFL, O_APPEND);
    pid_ = ::fork();
    if (pid_ == 0)
        become(words, output_.get(), errors_.get());
    if (pid_ < 0)
        throw std::runtime_error("fork");
}

running_program::~running_program()
{
    if (pid_ <= 0)
        return;
    (void)::kill(pid_, SIGKILL);
    (void)::waitpid(pid_, nullptr, 0);
}

std::string running_program::output() const
{
    return content_of(output_);
}

std::string running_program::errors() const
{
    return content_of(errors_);
}

void running_program::signal(int number) const
{
    if (pid_ > 0)
        (void)::kill(pid_, number);
}

finished_program running_program::wait(std::chrono::seconds patience)
{
    int status = -1;
    const bool ended = wait_until([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, patience);
    finished_program finished{-1, output(), errors()};
    if (!ended)
        return finished;
    pid_ = -1;
    if (WIFEXITED(status))
        finished.exit_code = WEXITSTATUS(status);
    return finished;
}

finished_program run_program(const std::vector<std::string> &words)
{
    return running_program(words).wait();
}
