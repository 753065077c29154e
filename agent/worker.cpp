#include "worker.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "c_boundary.h"
#include "cmi.h"
#include "endpoints.h"
#include "unique_fd.h"

namespace
{

constexpr unsigned TIME_LIMIT_S = 60;
constexpr std::int64_t LOOK_US = 100'000; // how soon the end of one is noticed

struct worker {
    pid_t process = -1;
    std::int32_t handle = -1; // the agent's endpoint
    mts_message *message = nullptr;
};

std::vector<worker> &workers()
{
    static std::vector<worker> own;
    return own;
}

// false when nobody could be answered.
bool respond(std::int32_t handle, mts_message *message, const answer &given)
{
    return cmi_response(given.payload().data(), static_cast<std::uint32_t>(given.payload().size()), handle, message,
                        given.status()) == 0;
}

// Whether it has ended; then its message is given back.
bool has_ended(const worker &one)
{
    int status = 0;
    if (::waitpid(one.process, &status, WNOHANG) == 0)
        return false;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != EXIT_SUCCESS) // killed, for instance
        (void)respond(one.handle, one.message, AGENT_ERR_UNREADABLE);
    (void)mts_drop(one.handle, one.message);
    return true;
}

// What it calls may print for the daemon's log; that is not the agent's business.
void print_nothing()
{
    if (const unique_fd nowhere(::open("/dev/null", O_WRONLY | O_CLOEXEC)); nowhere)
        (void)::dup2(nowhere.get(), STDOUT_FILENO);
}

[[noreturn]] void work_and_end(mts_message *message, const std::function<answer()> &work)
{
    (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
    (void)::alarm(TIME_LIMIT_S);
    print_nothing();
    // An endpoint of its own; whoever has asked knows the answer by the request's number.
    const std::int32_t handle = mts_bind(BIND_KIND, ANY_SAP, BIND_OPTIONS, "bios_agent's worker");
    const answer given = c_boundary(answer(AGENT_ERR_UNREADABLE), [&] { return work(); });
    ::exit(respond(handle, message, given) ? EXIT_SUCCESS : EXIT_FAILURE); // gives the endpoint back
}

} // namespace

void reap_workers()
{
    std::erase_if(workers(), has_ended);
}

std::int64_t worker_wait_limit_us()
{
    return workers().empty() ? -1 : LOOK_US;
}

bool answer_by_worker(std::int32_t handle, mts_message *message, const std::function<answer()> &work)
{
    reap_workers();
    workers().reserve(AGENT_WORKERS_MAX); // before the fork: memory may run out
    const bool is_full = workers().size() >= AGENT_WORKERS_MAX;
    const pid_t process = is_full ? -1 : ::fork();
    if (process == 0)
        work_and_end(message, work);
    if (process < 0) {
        (void)respond(handle, message, AGENT_ERR_BUSY);
        return false;
    }
    workers().push_back({process, handle, message});
    return true;
}
