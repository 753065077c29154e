// Sending the progress messages.
#include "flash_progress.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include "bios_opcodes.h"
#include "chassis_dir.h"
#include "flash_progress_file.h"
#include "mts.h"

namespace
{

constexpr std::uint32_t PERCENT_DONE = 100;
constexpr auto DONE_RETRY_TIME = std::chrono::seconds(5);
constexpr auto DONE_RETRY_PAUSE = std::chrono::milliseconds(100);

bool is_queue_full(int failure)
{
    return failure == MTS_ERRNO_TIMED_OUT || failure == MTS_ERRNO_INTERRUPTED || failure == EAGAIN;
}

} // namespace

void flash_progress::report(const flash_progress_span &span, std::uint32_t done, std::uint32_t total)
{
    const std::uint64_t share = std::uint64_t{span.last_percent - span.first_percent} * done / total;
    const std::uint32_t percent =
        std::min(span.first_percent + static_cast<std::uint32_t>(share), PERCENT_DONE - 1);
    flash_progress_note(chassis_own_slot(), instance_, span.phase, percent, attempt_);
    if (is_news(percent))
        (void)send(span.phase, percent); // the next percentage comes soon
}

void flash_progress::report_done()
{
    flash_progress_note(chassis_own_slot(), instance_, BIOS_PHASE_VERIFY, PERCENT_DONE, attempt_);
    if (!is_news(PERCENT_DONE))
        return;
    // The requester takes a programming without this message for one that did nothing.
    const auto deadline = std::chrono::steady_clock::now() + DONE_RETRY_TIME;
    while (!send(BIOS_PHASE_VERIFY, PERCENT_DONE) && is_queue_full(errno) &&
           std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(DONE_RETRY_PAUSE);
}

bool flash_progress::send(bios_programming_phase phase, std::uint32_t percent)
{
    area_->word[0] = percent + 1;
    const bios_programming_progress_t progress = {be32::of(phase), be32::of(percent), be32::of(attempt_)};
    return mts_send(handle_, node_, sap_, MTS_OPC_BIOS_PROGRAMMING_PROGRESS, &progress, sizeof progress, 0, 0, 0) ==
           0;
}
