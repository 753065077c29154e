// Watching an accepted programming: the messages about it, the life of the daemon that reports its end, what the
// programmed card's agent tells of its flash, Ctrl-C and the time limit.
//
// The end is reported by the daemon that took the request: by a notice to whoever listens, which names the
// module, from the active supervisor, and by a message to the requester from any other card. Progress comes
// from the process that does the work, on the same node.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "client.h"
#include "progress_bar.h"

// A process that was stopped, or hangs, lives and never reports anything. Longer than the daemons wait for each
// other (COMPLETION_PATIENCE_US), what they find out comes first; and no longer: with the questions that follow it
// is told within 35 s.
constexpr unsigned PROGRESS_PATIENCE_S = 31;

enum class watch_end {
    reported,    // the daemon reported a result
    vanished,    // the daemon ended without
    interrupted, // Ctrl-C
    timed_out,   // the time limit passed
    stalled,     // nothing has moved for PROGRESS_PATIENCE_S
};

struct programming_end {
    watch_end how = watch_end::reported;
    std::uint32_t result = 0; // when reported
    progress_state progress = {};
    unsigned elapsed_s = 0;
};

class programming_watch
{
public:
    // node: of the daemon that took the request; notified_module: the module that its notice will name
    programming_watch(std::uint32_t node, unsigned notified_module) : node_(node), module_(notified_module) {}

    // Takes the next message in order of arrival; true when it reports the end. Messages from elsewhere, about
    // other modules, too short or with values that cannot be are passed over.
    bool take(const received_message &message);

    std::uint32_t node() const { return node_; }
    const progress_state &progress() const { return progress_; }
    std::uint32_t result() const { return result_; }

private:
    void take_progress(const received_message &message);
    bool take_notify(const received_message &message);
    bool take_done(const received_message &message);

    std::uint32_t node_;
    unsigned module_;
    progress_state progress_;
    std::uint32_t result_ = 0;
};

// What is known of the work on the flash from elsewhere; it counts as a sign of work when it differs from the time
// before. Empty: nothing is known.
using work_signs = std::function<std::string()>;

// Watches until the end. Call it right after the request was accepted.
programming_end watch_programming(client_endpoint &endpoint, const daemon_probe &daemon, programming_watch watch,
                                  std::optional<unsigned> timeout_s, const work_signs &signs, progress_view &view);
