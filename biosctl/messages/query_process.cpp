#include "query_process.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "agents.h"
#include "write_all.h"

namespace
{

// What goes through the pipe, in front of the payload. Both ends are the same program.
struct answer_head {
    bool answered;
    int error;
    std::uint32_t status;
    std::uint32_t payload_bytes;
};

[[noreturn]] void run_process(const card_query &question, int fd, pid_t parent)
{
    (void)std::signal(SIGINT, SIG_DFL); // the last words are the parent's
    (void)::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != parent)
        ::_exit(1);
    try {
        const request_answer answer = question();
        leave_agents();
        const std::size_t length = std::min(answer.payload.size(), QUERY_ANSWER_BYTES_MAX);
        const answer_head head{answer.answered, answer.error, answer.status, static_cast<std::uint32_t>(length)};
        std::string bytes(reinterpret_cast<const char *>(&head), sizeof head);
        bytes.append(answer.payload.begin(), answer.payload.begin() + static_cast<std::ptrdiff_t>(length));
        ::_exit(write_all(fd, bytes.data(), bytes.size()) ? 0 : 1);
    } catch (const std::exception &) {
        ::_exit(1); // an answer that is cut short is the parent's EIO
    }
}

struct running_query {
    std::size_t index;
    std::unique_ptr<query_process> process;
};

void wait_for_any(const std::vector<running_query> &running)
{
    std::vector<pollfd> waiting;
    for (const running_query &query : running) {
        if (query.process->descriptor() < 0)
            return; // could not be started: settled already
        waiting.push_back({query.process->descriptor(), POLLIN, 0});
    }
    (void)::poll(waiting.data(), waiting.size(), -1);
}

bool is_ready(const query_process &process)
{
    pollfd ready{process.descriptor(), POLLIN, 0};
    return process.descriptor() < 0 || ::poll(&ready, 1, 0) > 0;
}

} // namespace

card_query daemon_query(std::uint32_t node, daemon_request request, unsigned wait_limit_s)
{
    return [node, request = std::move(request), wait_limit_s]() -> request_answer {
        client_endpoint endpoint;
        if (!endpoint.bound())
            return {.error = errno};
        return endpoint.request(node, request, wait_limit_s);
    };
}

query_process::query_process(const card_query &question)
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        error_ = errno;
        return;
    }
    unique_fd writing(ends[1]);
    pipe_.reset(ends[0]);
    const pid_t parent = ::getpid();
    pid_ = ::fork();
    if (pid_ == 0)
        run_process(question, writing.get(), parent);
    if (pid_ < 0) {
        error_ = errno;
        pipe_.reset();
    }
}

query_process::~query_process()
{
    if (pid_ <= 0)
        return;
    (void)::kill(pid_, SIGTERM);
    while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR)
        ;
}

bool query_process::take()
{
    if (!pipe_)
        return true;
    char piece[4096];
    const ssize_t got = ::read(pipe_.get(), piece, sizeof piece);
    if (got < 0 && errno == EINTR)
        return false;
    if (got > 0) {
        received_.append(piece, static_cast<std::size_t>(got));
        return false;
    }
    pipe_.reset();
    return true;
}

request_answer query_process::answer() const
{
    answer_head head{};
    if (error_ != 0)
        return {.error = error_};
    if (received_.size() < sizeof head)
        return {.error = EIO};
    std::memcpy(&head, received_.data(), sizeof head);
    if (received_.size() - sizeof head != head.payload_bytes)
        return {.error = EIO};
    return {.answered = head.answered,
            .error = head.error,
            .status = head.status,
            .payload = {received_.begin() + sizeof head, received_.end()}};
}

std::vector<request_answer> ask_all(const std::vector<card_query> &queries)
{
    std::vector<request_answer> answers(queries.size());
    std::vector<running_query> running;
    std::size_t next = 0;
    while (next < queries.size() || !running.empty()) {
        for (; next < queries.size() && running.size() < QUERIES_AT_ONCE; ++next)
            running.push_back({next, std::make_unique<query_process>(queries[next])});
        wait_for_any(running);
        std::erase_if(running, [&](const running_query &query) {
            if (!is_ready(*query.process) || !query.process->take())
                return false;
            answers[query.index] = query.process->answer();
            return true;
        });
    }
    return answers;
}
