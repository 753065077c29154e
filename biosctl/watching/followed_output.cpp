#include "followed_output.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <poll.h>
#include <unistd.h>

#include "interrupt.h"
#include "write_all.h"

bool put_text(int fd, const std::string &text)
{
    return write_all(fd, text.data(), text.size(), interrupted);
}

bool wait_before_next(int fd, std::chrono::milliseconds how_long)
{
    sigset_t interrupt, before;
    (void)sigemptyset(&interrupt);
    (void)sigaddset(&interrupt, SIGINT);
    (void)::sigprocmask(SIG_BLOCK, &interrupt, &before);
    pollfd output = {fd, 0, 0};
    if (!interrupted()) {
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(how_long);
        const std::chrono::nanoseconds rest = how_long - seconds;
        const timespec limit = {static_cast<time_t>(seconds.count()), static_cast<long>(rest.count())};
        (void)::ppoll(&output, 1, &limit, &before);
    }
    (void)::sigprocmask(SIG_SETMASK, &before, nullptr);
    return (output.revents & (POLLERR | POLLNVAL)) == 0;
}

outcome chassis_gone()
{
    return failure(EXIT_NOT_FOUND, "the chassis has gone", "see whether its directory was removed");
}

outcome output_not_written(int error)
{
    if (error == EPIPE || error == EINTR)
        return {};
    return failure(EXIT_FAILED, std::string("the output could not be written: ") + std::strerror(error),
                   "check where standard output goes to");
}
