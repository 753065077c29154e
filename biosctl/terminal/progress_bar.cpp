#include "progress_bar.h"

#include <algorithm>
#include <cstdio>
#include <unistd.h>

#include "bios_messages.h"
#include "terminal.h"
#include "write_all.h"

namespace
{

constexpr std::size_t BAR_CELLS_MAX = 40;
constexpr std::size_t BAR_CELLS_MIN = 5;

std::string bar(std::uint32_t percent, std::size_t cells)
{
    const std::size_t full = std::min<std::size_t>(percent, 100) * cells / 100;
    return "[" + std::string(full, '#') + std::string(cells - full, '.') + "] ";
}

std::string detail_text(const progress_state &state, unsigned elapsed_s)
{
    if (!state.seen)
        return "waiting for the first progress, " + elapsed_text(elapsed_s);
    const std::string attempt = state.attempt > 0 ? ", attempt " + std::to_string(state.attempt) : "";
    return work_text(state.phase, state.percent) + attempt + ", " + elapsed_text(elapsed_s);
}

std::string brief_text(const progress_state &state, unsigned elapsed_s)
{
    if (!state.seen)
        return "waiting " + elapsed_text(elapsed_s);
    const std::string attempt = state.attempt > 0 ? " #" + std::to_string(state.attempt) : "";
    return work_text(state.phase, state.percent) + attempt + " " + elapsed_text(elapsed_s);
}

} // namespace

const char *phase_text(std::uint32_t phase)
{
    switch (phase) {
    case BIOS_PHASE_ERASE:
        return "erasing";
    case BIOS_PHASE_WRITE:
        return "writing";
    case BIOS_PHASE_VERIFY:
        return "verifying";
    default:
        return "working";
    }
}

const char *work_text(std::uint32_t phase, std::uint32_t percent)
{
    return phase == BIOS_PHASE_VERIFY && percent >= 100 ? "verified" : phase_text(phase);
}

std::string elapsed_text(unsigned seconds)
{
    char text[32];
    const unsigned hours = seconds / 3600;
    const unsigned minutes = seconds / 60 % 60;
    if (hours > 0)
        (void)std::snprintf(text, sizeof text, "%u:%02u:%02u", hours, minutes, seconds % 60);
    else
        (void)std::snprintf(text, sizeof text, "%02u:%02u", minutes, seconds % 60);
    return text;
}

std::string progress_bar_text(const std::string &subject, const progress_state &state, unsigned elapsed_s,
                              unsigned columns)
{
    char percent[16];
    (void)std::snprintf(percent, sizeof percent, "%3u%% ", state.percent);
    const std::string head = subject + ": ";
    const std::string tail = percent + detail_text(state, elapsed_s);
    // Free at the end: the last column, as some terminals wrap when it is written, and two for the "^C" of Ctrl-C.
    constexpr unsigned FREE_COLUMNS = 3;
    const std::size_t room = columns > FREE_COLUMNS ? columns - FREE_COLUMNS : 0;
    const std::size_t taken = head.size() + tail.size() + std::string("[] ").size();
    const std::size_t cells = room > taken ? std::min(room - taken, BAR_CELLS_MAX) : 0;
    if (head.size() + tail.size() > room) {
        std::string brief = head + percent + brief_text(state, elapsed_s);
        brief.resize(std::min(brief.size(), room));
        return brief;
    }
    return head + (cells >= BAR_CELLS_MIN ? bar(state.percent, cells) : "") + tail;
}

std::string progress_line_text(const std::string &subject, const progress_state &state, unsigned elapsed_s)
{
    return subject + ": " + std::to_string(state.percent) + "% " + detail_text(state, elapsed_s);
}

std::optional<std::string> progress_lines::next(const progress_state &state, unsigned elapsed_s)
{
    const std::uint32_t tens = state.percent / 10;
    if (!state.seen || (started_ && tens <= tens_ && state.attempt == attempt_))
        return std::nullopt;
    started_ = true;
    tens_ = std::max(tens, tens_);
    attempt_ = state.attempt;
    return progress_line_text(subject_, state, elapsed_s);
}

progress_view::progress_view(int fd, std::string subject)
    : fd_(fd),
      terminal_(can_draw(fd)),
      subject_(subject),
      lines_(std::move(subject))
{
}

void progress_view::show(const progress_state &state, unsigned elapsed_s)
{
    if (terminal_) {
        put("\r" + progress_bar_text(subject_, state, elapsed_s, size_of_terminal(fd_).columns) + "\033[K");
        drawn_ = true;
        return;
    }
    if (const auto line = lines_.next(state, elapsed_s); line)
        put(*line + "\n");
}

void progress_view::finish()
{
    if (drawn_)
        put("\n");
    drawn_ = false;
}

void progress_view::put(const std::string &text) const
{
    // A progress display that cannot be written is no reason to stop watching.
    (void)write_all(fd_, text.data(), text.size());
}
