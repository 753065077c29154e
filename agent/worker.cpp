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

std::vector<pid_t> &workers()
{
    static std::vector<pid_t> own;
    return own;
}

void respond(std::int32_t handle, mts_message *message, const answer &given)
{
    (void)cmi_response(given.payload().data(), static_cast<std::uint32_t>(given.payload().size()), handle, message,
                       given.status());
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
    respond(handle, message, given);
    ::exit(EXIT_SUCCESS); // gives the endpoint back
}

} // namespace

void reap_workers()
{
    std::erase_if(workers(), [](pid_t worker) { return ::waitpid(worker, nullptr, WNOHANG) != 0; });
}

void answer_by_worker(std::int32_t handle, mts_message *message, const std::function<answer()> &work)
{
    reap_workers();
    if (workers().size() >= AGENT_WORKERS_MAX)
        return respond(handle, message, AGENT_ERR_BUSY);
    const pid_t worker = ::fork();
    if (worker == 0)
        work_and_end(message, work);
    if (worker < 0)
        return respond(handle, message, AGENT_ERR_BUSY);
    workers().push_back(worker);
}
