#include "peer.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "contract_surroundings.h"

namespace
{

constexpr auto ANSWER_TIME = std::chrono::seconds(30);

struct pipe_ends {
    int read = -1;
    int write = -1;
};

bool make_pipe(pipe_ends &ends)
{
    int both[2];
    if (::pipe2(both, O_CLOEXEC) != 0)
        return false;
    ends = {both[0], both[1]};
    return true;
}

// As contract_start_on_other_card, for the card itself.
const char *start_on_this_card(char *const arguments[], int input, int output, pid_t *process_out)
{
    *process_out = ::fork();
    if (*process_out < 0)
        return "no process can be forked";
    if (*process_out > 0)
        return nullptr;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::dup2(input, STDIN_FILENO);
    ::dup2(output, STDOUT_FILENO);
    ::execv(arguments[0], arguments);
    ::_exit(127);
}

std::string own_program()
{
    char path[4096];
    const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path);
    return length > 0 ? std::string(path, static_cast<std::size_t>(length)) : std::string();
}

using starter = const char *(char *const arguments[], int input, int output, pid_t *process_out);

std::unique_ptr<peer_process> start_peer(starter *start, std::string &reason_out)
{
    ::signal(SIGPIPE, SIG_IGN); // a peer that has died is an answer that does not come
    pipe_ends commands;
    pipe_ends answers;
    if (!make_pipe(commands) || !make_pipe(answers)) {
        reason_out = std::string("no pipe: ") + std::strerror(errno);
        return nullptr;
    }
    std::string program = own_program();
    char option[] = "--peer";
    char *const arguments[] = {program.data(), option, nullptr};
    pid_t process = -1;
    const char *reason = start(arguments, commands.read, answers.write, &process);
    ::close(commands.read);
    ::close(answers.write);
    auto peer = std::make_unique<peer_process>(process, commands.write, answers.read);
    if (reason == nullptr && peer->answer() != "ready")
        reason = "the peer does not start";
    if (reason == nullptr)
        return peer;
    reason_out = reason;
    return nullptr;
}

} // namespace

peer_process::peer_process(pid_t process, int to_peer, int from_peer)
    : process_(process),
      to_peer_(to_peer),
      from_peer_(from_peer)
{
}

peer_process::~peer_process()
{
    ::close(to_peer_); // at the end of its input it ends
    ::close(from_peer_);
    if (process_ <= 0)
        return;
    ::kill(process_, SIGKILL);
    (void)::waitpid(process_, nullptr, 0);
}

void peer_process::tell(const std::string &command)
{
    const std::string line = command + "\n";
    (void)!::write(to_peer_, line.data(), line.size()); // the answer that does not come tells
}

std::string peer_process::answer()
{
    const auto deadline = std::chrono::steady_clock::now() + ANSWER_TIME;
    for (;;) {
        if (const std::size_t end = received_.find('\n'); end != std::string::npos) {
            const std::string line = received_.substr(0, end);
            received_.erase(0, end + 1);
            return line;
        }
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd readable = {from_peer_, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&readable, 1, static_cast<int>(left.count())) == 0)
            return {};
        char piece[4096];
        const ssize_t got = ::read(from_peer_, piece, sizeof piece);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return {};
        received_.append(piece, static_cast<std::size_t>(got));
    }
}

std::string peer_process::ask(const std::string &command)
{
    tell(command);
    return answer();
}

void peer_process::finish(const std::string &command)
{
    tell(command);
    (void)answer();
    if (process_ > 0)
        (void)::waitpid(process_, nullptr, 0);
    process_ = -1;
}

std::unique_ptr<peer_process> start_peer_on_this_card(std::string &reason_out)
{
    return start_peer(start_on_this_card, reason_out);
}

std::unique_ptr<peer_process> start_peer_on_other_card(std::string &reason_out)
{
    return start_peer(contract_start_on_other_card, reason_out);
}
