#include "program_wait.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <unistd.h>
#include <utility>

#include "elapsed.h"
#include "interrupt.h"
#include "lock_holders.h"
#include "programming_messages.h"

namespace
{

using steady = std::chrono::steady_clock;

constexpr unsigned RECEIVE_WAIT_S = 1; // also how soon Ctrl-C and the time limit are noticed at the latest
constexpr auto PROBE_INTERVAL = std::chrono::seconds(1);
constexpr unsigned QUIET_S = 3; // without a message about progress; then the other signs are looked at
constexpr auto LOOK_INTERVAL = std::chrono::seconds(1);

// When the last sign of work was seen.
class work_clock
{
public:
    explicit work_clock(const work_signs &signs) : signs_(signs) {}

    void note_progress(const progress_state &progress)
    {
        const std::array now{static_cast<unsigned>(progress.seen), static_cast<unsigned>(progress.phase),
                             progress.percent, progress.attempt};
        if (now == progress_)
            return;
        progress_ = now;
        last_ = steady::now();
    }
    bool has_stalled()
    {
        if (seconds_since(last_) >= QUIET_S && steady::now() >= next_look_) {
            next_look_ = steady::now() + LOOK_INTERVAL;
            look();
        }
        return seconds_since(last_) >= PROGRESS_PATIENCE_S;
    }

private:
    void look()
    {
        std::string now = signs_();
        if (now.empty() || now == seen_)
            return;
        if (!seen_.empty())
            last_ = steady::now();
        seen_ = std::move(now);
    }

    const work_signs &signs_;
    std::array<unsigned, 4> progress_ = {};
    std::string seen_;
    steady::time_point last_ = steady::now();
    steady::time_point next_look_ = last_;
};

// Takes what came before and with the acceptance; true when the watched programming has ended already.
//
// A notice among it may be that of an earlier programming of the same module: the daemon reports it when the
// request wakes it, and accepts the request then. It is ours when progress came before it, or when the daemon
// holds its lock no more, which it takes before it accepts and frees before it reports.
bool take_kept_messages(client_endpoint &endpoint, programming_watch &watch, progress_view &view)
{
    bool doubtful = false;
    while (const auto message = endpoint.receive(0)) {
        const bool ended = watch.take(*message);
        view.show(watch.progress(), 0);
        if (!ended)
            continue;
        if (decode_done(*message) || watch.progress().seen)
            return true;
        doubtful = true;
    }
    if (!doubtful || find_lock_holder(watch.node()))
        return false;
    // The lock may have been freed this moment, and the notice about ours be on its way behind the doubtful one.
    while (const auto message = endpoint.receive(RECEIVE_WAIT_S)) {
        if (watch.take(*message))
            break;
    }
    return true;
}

bool take_until_empty(client_endpoint &endpoint, programming_watch &watch)
{
    while (const auto message = endpoint.receive(0)) {
        if (watch.take(*message))
            return true;
    }
    return false;
}

} // namespace

bool programming_watch::take(const received_message &message)
{
    if (message.source.node != node_)
        return false;
    take_progress(message);
    return take_notify(message) || take_done(message);
}

void programming_watch::take_progress(const received_message &message)
{
    if (const auto told = decode_progress(message); told)
        progress_ = {true, told->phase, std::max(progress_.percent, told->percent), told->attempt};
}

bool programming_watch::take_notify(const received_message &message)
{
    const auto end = decode_end_notice(message);
    if (!message.is_from_daemon(node_) || !end || end->module != module_)
        return false;
    result_ = end->result;
    return true;
}

bool programming_watch::take_done(const received_message &message)
{
    const auto result = decode_done(message);
    if (!message.is_from_daemon(node_) || !result)
        return false;
    result_ = *result;
    return true;
}

programming_end watch_programming(client_endpoint &endpoint, const daemon_probe &daemon, programming_watch watch,
                                  std::optional<unsigned> timeout_s, const work_signs &signs, progress_view &view)
{
    const steady::time_point start = steady::now();
    work_clock clock(signs);
    const auto end = [&](watch_end how) {
        view.finish();
        return programming_end{how, watch.result(), watch.progress(), seconds_since(start)};
    };

    if (take_kept_messages(endpoint, watch, view))
        return end(watch_end::reported);

    steady::time_point next_probe = start + PROBE_INTERVAL;
    for (;;) {
        view.show(watch.progress(), seconds_since(start));
        const auto message = endpoint.receive(RECEIVE_WAIT_S);
        const int error = errno;
        if (message && watch.take(*message)) {
            view.show(watch.progress(), seconds_since(start));
            return end(watch_end::reported);
        }
        if (interrupted())
            return end(watch_end::interrupted);
        if (timeout_s && seconds_since(start) >= *timeout_s)
            return end(watch_end::timed_out);
        clock.note_progress(watch.progress());
        if (!message && error != MTS_ERRNO_TIMED_OUT && error != MTS_ERRNO_INTERRUPTED)
            (void)::usleep(100'000); // a broken endpoint fails at once; the probe ends the wait
        if (steady::now() < next_probe)
            continue;
        next_probe = steady::now() + PROBE_INTERVAL;
        if (!daemon.alive()) {
            // It may have reported right before it ended.
            return end(take_until_empty(endpoint, watch) ? watch_end::reported : watch_end::vanished);
        }
        if (clock.has_stalled())
            return end(take_until_empty(endpoint, watch) ? watch_end::reported : watch_end::stalled);
    }
}
