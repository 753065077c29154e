// A programming in a forked child, as the daemon does it: the child has an endpoint of its own and its parent, the
// requester, receives the progress messages.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <sys/types.h>
#include <vector>

#include "bios_flash.h"
#include "result_code.h"

class programming
{
public:
    // Does the work in the child. handle: the child's endpoint; area: for all attempts of the work.
    using work = std::function<std::int32_t(std::int32_t handle, bios_flash_progress_area_t *area)>;

    explicit programming(const work &job);
    programming(const programming &) = delete;
    programming &operator=(const programming &) = delete;
    ~programming();

    // Waits until a percentage above the given one has been told. false when the work ended before.
    bool wait_for_progress(std::uint32_t above_percent);
    // Waits for the end; the work's result, or nothing when the child did not tell one.
    std::optional<result_code> result();
    // Ends the child where it is.
    void kill();

    struct progress {
        std::uint32_t percent;
        std::uint32_t attempt;
    };
    const std::vector<progress> &told() const { return told_; }
    bool told_percent(std::uint32_t percent) const;
    // Whether no percentage is lower than one told before.
    bool never_went_back() const;

private:
    bool receive_one();

    pid_t child_ = -1;
    bool ended_ = false;
    std::optional<result_code> result_;
    std::vector<progress> told_;
};
