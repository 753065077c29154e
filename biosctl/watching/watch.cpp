// The loop of the watch, and its screen. On a terminal the table is drawn over itself; each drawing is one write
// that hides the cursor at its beginning and shows it at its end, so that nothing has to be restored however it is
// left.
#include "watch.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <unistd.h>

#include "followed_output.h"
#include "interrupt.h"
#include "inventory.h"
#include "serving_slot.h"
#include "terminal.h"
#include "watch_report.h"

namespace
{

using steady = std::chrono::steady_clock;

constexpr const char *HIDE_CURSOR = "\033[?25l";
constexpr const char *SHOW_CURSOR = "\033[?25h";
constexpr const char *CLEAR_LINE_END = "\033[K";
constexpr const char *CLEAR_BELOW = "\033[J";

std::atomic<bool> continued{false};

void on_continue(int)
{
    continued = true;
}

void catch_continue()
{
    struct sigaction action {
    };
    action.sa_handler = on_continue;
    action.sa_flags = SA_RESTART;
    (void)::sigaction(SIGCONT, &action, nullptr);
}

std::string json_line(const watch_snapshot &snapshot)
{
    return watch_json(snapshot).dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

std::string shown_line(const styled_text &line, int fd)
{
    return can_colour(fd) ? line.coloured() : line.plain();
}

class watch_screen
{
public:
    watch_screen(int fd, bool json, bool once) : fd_(fd), json_(json), in_place_(!json && !once && can_draw(fd)) {}

    // false with errno when the output cannot be written.
    bool show(const watch_snapshot &snapshot);

    // What the shell prints next begins on a line of its own, behind the terminal's "^C".
    void leave() const
    {
        if (in_place_ && interrupted())
            (void)put_text(fd_, "\n");
    }

private:
    bool draw(const watch_snapshot &snapshot);
    bool print(const watch_snapshot &snapshot);
    std::string text_of(const watch_snapshot &snapshot) const;

    int fd_;
    bool json_;
    bool in_place_;
    std::optional<watch_snapshot> shown_;
    std::size_t drawn_lines_ = 0;
    unsigned drawn_columns_ = 0;
};

bool watch_screen::show(const watch_snapshot &snapshot)
{
    const bool done = in_place_ ? draw(snapshot) : print(snapshot);
    shown_ = snapshot;
    return done;
}

bool watch_screen::draw(const watch_snapshot &snapshot)
{
    const terminal_size terminal = size_of_terminal(fd_);
    const watch_space space = {terminal.columns, terminal.lines};
    // After a stop the shell has written below, and another width has wrapped what stood there.
    if (continued.exchange(false) || space.columns != drawn_columns_)
        drawn_lines_ = 0;
    const std::vector<styled_text> lines = watch_lines(snapshot, space);
    std::string text = HIDE_CURSOR;
    if (drawn_lines_ > 0)
        text += "\r\033[" + std::to_string(drawn_lines_) + "A";
    for (const styled_text &line : lines)
        text += shown_line(line, fd_) + CLEAR_LINE_END + "\n";
    text += std::string(CLEAR_BELOW) + SHOW_CURSOR;
    drawn_lines_ = lines.size();
    drawn_columns_ = space.columns;
    return put_text(fd_, text);
}

bool watch_screen::print(const watch_snapshot &snapshot)
{
    return (shown_ && !snapshot.differs_from(*shown_)) || put_text(fd_, text_of(snapshot));
}

std::string watch_screen::text_of(const watch_snapshot &snapshot) const
{
    if (json_)
        return json_line(snapshot);
    std::optional<watch_space> space;
    if (::isatty(fd_) == 1)
        space = {size_of_terminal(fd_).columns, ~0U}; // as long as it has to be
    std::string text = shown_ ? "\n" : "";
    for (const styled_text &line : watch_lines(shown_ ? changed_rows(*shown_, snapshot) : snapshot, space))
        text += shown_line(line, fd_) + "\n";
    return text;
}

outcome watch(const watch_options &options, const std::vector<unsigned> &modules, watch_screen &screen)
{
    const auto start = steady::now();
    for (;;) {
        if (!chassis_is_there())
            return chassis_gone();
        if (!screen.show(make_snapshot(read_watch_facts(modules))))
            return output_not_written(errno);
        const auto watched = steady::now() - start;
        if (options.once || interrupted() || (options.duration && watched >= *options.duration))
            return {};
        auto pause = options.interval;
        if (options.duration)
            pause = std::min(pause, std::chrono::ceil<std::chrono::milliseconds>(*options.duration - watched));
        if (!wait_before_next(STDOUT_FILENO, pause) || interrupted())
            return {};
    }
}

} // namespace

outcome run_watch(const watch_options &options, bool json)
{
    std::vector<unsigned> modules = options.modules;
    std::sort(modules.begin(), modules.end());
    modules.erase(std::unique(modules.begin(), modules.end()), modules.end());
    const auto missing = std::find_if_not(modules.begin(), modules.end(), module_exists);
    if (missing != modules.end())
        return no_module_failure(*missing);

    catch_interrupt();
    catch_continue();
    (void)std::signal(SIGPIPE, SIG_IGN); // a reader that has gone ends the watch in an orderly way
    watch_screen screen(STDOUT_FILENO, json, options.once);
    outcome end = watch(options, modules, screen);
    screen.leave();
    return end;
}
