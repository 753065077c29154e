#include "ping_pong.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <linux/close_range.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr int ANSWERING_FD = 3;

// Nothing of this process's is left open: what the work runs is as small as what a daemon runs.
int keep_only(int socket)
{
    (void)::dup2(socket, ANSWERING_FD);
    (void)::close_range(ANSWERING_FD + 1, ~0U, 0);
    return ANSWERING_FD;
}

void answer_all(int socket, std::vector<char> &request, const std::vector<char> &answer,
                const std::function<void()> &work)
{
    while (::recv(socket, request.data(), request.size(), 0) > 0) {
        if (work)
            work();
        if (::send(socket, answer.data(), answer.size(), MSG_NOSIGNAL) < 0)
            return;
    }
}

} // namespace

ping_pong::ping_pong(std::size_t request_bytes, std::size_t answer_bytes, const std::function<void()> &prepare,
                     const std::function<void()> &work)
    : request_(request_bytes),
      answer_(answer_bytes)
{
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        throw std::runtime_error("socketpair");
    socket_.reset(ends[0]);
    unique_fd answering(ends[1]);
    other_ = ::fork();
    if (other_ < 0)
        throw std::runtime_error("fork");
    if (other_ == 0) {
        try {
            (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (prepare)
                prepare();
            const int socket = keep_only(answering.get());
            (void)::fcntl(socket, F_SETFD, FD_CLOEXEC);
            answer_all(socket, request_, answer_, work);
        } catch (const std::exception &failure) {
            std::fprintf(stderr, "bench: answering process: %s\n", failure.what());
        }
        ::_exit(EXIT_SUCCESS);
    }
}

ping_pong::~ping_pong()
{
    socket_.reset();
    (void)::waitpid(other_, nullptr, 0);
}

void ping_pong::round_trip()
{
    if (::send(socket_.get(), request_.data(), request_.size(), MSG_NOSIGNAL) < 0 ||
        ::recv(socket_.get(), answer_.data(), answer_.size(), 0) != static_cast<ssize_t>(answer_.size()))
        throw std::runtime_error("the answering process has ended");
}
