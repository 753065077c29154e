#include "card_agent.h"

#include <csignal>
#include <cstdio>
#include <sys/socket.h>
#include <unistd.h>

#include "agent_messages.h"
#include "card_program.h"
#include "card_session.h"
#include "launcher_error.h"

namespace
{

constexpr std::chrono::milliseconds RESTART_PAUSE{200};
constexpr std::chrono::seconds START_PATIENCE{3};

} // namespace

bool card_agent::is_there() const
{
    return ::access(options_.program.c_str(), X_OK) == 0;
}

bool card_agent::is_due() const
{
    return session_ == 0 && steady::now() >= due_;
}

int card_agent::wait_limit_ms() const
{
    if (session_ != 0 || due_ == steady::time_point::max())
        return -1;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(due_ - steady::now()).count();
    return left > 0 ? static_cast<int>(left) + 1 : 0;
}

void card_agent::ensure_started(const card_root &root)
{
    if (session_ != 0 || !is_there())
        return;
    try {
        start(root);
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "chassis: bios_agent could not be started: %s\n", failure.what());
        due_ = steady::now() + RESTART_PAUSE;
    }
}

void card_agent::start(const card_root &root)
{
    root.install_program(options_.way, options_.program, place_in_root(card_program::agent));
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        throw system_error_of("socket");
    reports_.reset(ends[0]);
    unique_fd session_end(ends[1]);
    std::fflush(nullptr);
    const int child = fork_into_isolation(options_.way);
    if (child == 0) {
        reports_.reset();
        run_session({options_.directory, options_.slot, options_.way, card_program::agent, session_end.get()});
    }
    if (child < 0)
        throw system_error_of("start of the agent");
    session_ = child;
    probe_.reset();
    serves_ = was_killed_ = false;
    started_ = steady::now();
    due_ = steady::time_point::max();
}

void card_agent::kill()
{
    was_killed_ = true;
    if (session_ != 0)
        (void)::kill(session_, SIGKILL); // its processes die with it
}

bool card_agent::has_ended(pid_t process)
{
    if (process != session_ || session_ == 0)
        return false;
    session_ = 0;
    reports_.reset();
    due_ = steady::now() + (was_killed_ ? std::chrono::milliseconds(0) : RESTART_PAUSE);
    return true;
}

bool card_agent::serves_or_hangs()
{
    serves_ = serves_ || !is_there() || (session_ != 0 && probe_.is_taken(options_.slot, AGENT_SAP));
    return serves_ || steady::now() - started_ > START_PATIENCE;
}
