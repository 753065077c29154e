#include "programming.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bios_messages.h"
#include "bios_opcodes.h"
#include "contract_test.h"

namespace
{

constexpr std::uint32_t RESULT_OPCODE = MTS_OPC_BIOS_PROGRAMMING_NOTIFY; // the child's last message, four bytes
constexpr std::uint32_t SILENCE_LIMIT_S = 300;                           // the largest flashes erase for minutes

[[noreturn]] void run_child(const programming::work &job)
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const std::int32_t handle = mts_bind(BIND_KIND, ANY_SAP, BIND_OPTIONS, "contract programming");
    if (handle < 0)
        ::_exit(1);
    bios_flash_progress_area_t area = {};
    const std::int32_t result = job(handle, &area);
    const std::int32_t sent =
        mts_send(handle, own_node(), contract_sap(0), RESULT_OPCODE, &result, sizeof result, 0, 0, 0);
    ::_exit(sent == 0 ? 0 : 1);
}

} // namespace

programming::programming(const work &job)
{
    (void)own_endpoint();
    drop_waiting_messages();
    child_ = ::fork();
    if (child_ == 0)
        run_child(job);
}

programming::~programming()
{
    kill();
}

bool programming::receive_one()
{
    // The child that ends without its last message is noticed within a second.
    for (std::uint32_t waited_s = 0; waited_s < SILENCE_LIMIT_S && !ended_; ++waited_s) {
        const held_message message = receive(1);
        if (!message) {
            ended_ = child_ <= 0 || ::waitpid(child_, nullptr, WNOHANG) == child_;
            if (ended_)
                child_ = -1;
            continue;
        }
        if (mts_opc_get(message.get()) == RESULT_OPCODE) {
            std::int32_t result = 0;
            std::memcpy(&result, mts_payload_get(message.get()), sizeof result);
            result_ = result;
            ended_ = true;
        } else if (mts_opc_get(message.get()) == MTS_OPC_BIOS_PROGRAMMING_PROGRESS) {
            const auto *body = static_cast<const bios_programming_progress_t *>(mts_payload_get(message.get()));
            told_.push_back({body->percent.load(), body->attempt.load()});
        }
        return true;
    }
    return false;
}

bool programming::wait_for_progress(std::uint32_t above_percent)
{
    while (!ended_ && receive_one()) {
        if (!told_.empty() && told_.back().percent > above_percent)
            return !ended_;
    }
    return false;
}

std::optional<result_code> programming::result()
{
    while (!ended_ && receive_one())
        ;
    kill();
    return result_;
}

void programming::kill()
{
    if (child_ <= 0)
        return;
    if (!ended_)
        ::kill(child_, SIGKILL);
    (void)::waitpid(child_, nullptr, 0);
    child_ = -1;
    ended_ = true;
}

bool programming::told_percent(std::uint32_t percent) const
{
    return std::any_of(told_.begin(), told_.end(), [&](const progress &step) { return step.percent == percent; });
}

bool programming::never_went_back() const
{
    return std::is_sorted(told_.begin(), told_.end(),
                          [](const progress &a, const progress &b) { return a.percent < b.percent; });
}
