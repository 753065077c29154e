#include "program_libraries.h"

#include <cerrno>
#include <fcntl.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

#include "launcher_error.h"
#include "spawn_actions.h"
#include "unique_fd.h"

namespace
{

std::string read_to_end(int fd)
{
    std::string text;
    char piece[4096];
    for (;;) {
        const ssize_t got = ::read(fd, piece, sizeof piece);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return text;
        text.append(piece, static_cast<std::size_t>(got));
    }
}

// Standard output of ldd for the program. Its exit status is not looked at: it is a failure also for a script.
std::string run_ldd(const std::string &program)
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        throw system_error_of("pipe");
    const unique_fd reader(ends[0]);
    unique_fd writer(ends[1]);
    spawn_actions actions;
    actions.connect(writer.get(), STDOUT_FILENO);
    actions.open("/dev/null", O_WRONLY, STDERR_FILENO);
    char name[] = "ldd";
    std::string argument = program;
    char *const arguments[] = {name, argument.data(), nullptr};
    char language[] = "LC_ALL=C";
    char path[] = "PATH=/usr/bin:/bin";
    char *const environment[] = {language, path, nullptr};
    pid_t child = 0;
    int failure = actions.result();
    if (failure == 0)
        failure = ::posix_spawnp(&child, name, actions.get(), nullptr, arguments, environment);
    if (failure != 0) {
        errno = failure;
        throw system_error_of("ldd");
    }
    writer.reset();
    std::string text = read_to_end(reader.get());
    (void)::waitpid(child, nullptr, 0);
    return text;
}

} // namespace

// The lines of interest are "NAME => /FILE (ADDRESS)", "/FILE (ADDRESS)" and "NAME => not found".
std::vector<std::string> libraries_of(const std::string &program)
{
    std::vector<std::string> libraries;
    std::istringstream lines(run_ldd(program));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string file;
        std::string arrow;
        words >> file >> arrow;
        if (arrow == "=>")
            words >> file;
        if (arrow == "=>" && file == "not")
            throw launcher_error((program + ": a shared library is missing: ").append(line));
        if (!file.empty() && file.front() == '/' && file.back() != ':')
            libraries.push_back(file);
    }
    return libraries;
}

std::string find_program(const std::string &name)
{
    for (const char *folder : {"/usr/bin/", "/bin/", "/usr/sbin/", "/sbin/"}) {
        if (::access((folder + name).c_str(), X_OK) == 0)
            return folder + name;
    }
    return {};
}
