#include "flash_event_log.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include "chassis_dir.h"
#include "flash_event_chain.h"
#include "flash_folder.h"
#include "regular_file.h"
#include "utc_time.h"

namespace
{

constexpr std::string_view MILLISECONDS_FORM = "2026-01-31T23:59:59.123";
constexpr std::uint64_t TAIL_BYTES = 4 * FLASH_EVENT_LINE_BYTES_MAX;
constexpr std::uint64_t READ_BYTES_MAX = 4 * FLASH_EVENT_LOG_BYTES_MAX; // of a file that somebody else has written
constexpr const char *NEW_TOTALS = "event_totals.new";
constexpr int SAFE_TO_OPEN = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

std::uint64_t size_of(const unique_fd &file)
{
    struct stat status {
    };
    const bool usable = file && ::fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode);
    return usable ? static_cast<std::uint64_t>(status.st_size) : 0;
}

std::string content_of(const unique_fd &file, std::uint64_t from, std::uint64_t limit)
{
    const std::uint64_t size = size_of(file);
    std::string content(static_cast<std::size_t>(size > from ? std::min(size - from, limit) : 0), '\0');
    std::size_t done = 0;
    while (done < content.size()) {
        const ssize_t got =
            ::pread(file.get(), content.data() + done, content.size() - done, static_cast<off_t>(from + done));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        done += static_cast<std::size_t>(got);
    }
    content.resize(done);
    return content;
}

// The whole lines that are events.
std::vector<flash_event> events_in(std::string_view content)
{
    std::vector<flash_event> events;
    for (std::size_t end = content.find('\n'); end != std::string_view::npos; end = content.find('\n')) {
        if (auto event = flash_event_parse(content.substr(0, end)); event)
            events.push_back(std::move(*event));
        content.remove_prefix(end + 1);
    }
    return events;
}

unique_fd open_to_read(const flash_folder &folder, const char *name)
{
    return unique_fd(::openat(folder.fd.get(), name, O_RDONLY | SAFE_TO_OPEN));
}

// None when the name is that of anything but a file.
unique_fd open_to_append(const flash_folder &folder)
{
    constexpr int FLAGS = O_RDWR | O_APPEND | O_CREAT | SAFE_TO_OPEN;
    return if_regular(unique_fd(::openat(folder.fd.get(), FLASH_FILE_EVENTS, FLAGS, 0644)));
}

flash_event_totals load_totals(const flash_folder &folder)
{
    return flash_event_totals_parse(
        content_of(open_to_read(folder, FLASH_FILE_EVENT_TOTALS), 0, FLASH_EVENT_LOG_BYTES_MAX));
}

// How the log ends.
struct log_end {
    std::uint64_t sequence = 0;           // 0: nothing is known
    std::string chain;                    // of the event with that sequence; empty: it has none, or is not known
    std::optional<flash_event> last_work; // that was no refusal

    bool is_whole() const { return sequence != 0 && last_work; }
};

log_end end_of(const unique_fd &log, std::uint64_t from)
{
    log_end end;
    for (flash_event &event : events_in(content_of(log, from, READ_BYTES_MAX))) {
        end.sequence = event.sequence;
        end.chain = event.chain;
        if (event.kind != flash_event_kind::refused)
            end.last_work = std::move(event);
    }
    return end;
}

// From as little as tells it.
log_end find_end(const flash_folder &folder, const unique_fd &log)
{
    const std::uint64_t size = size_of(log);
    log_end end = end_of(log, size > TAIL_BYTES ? size - TAIL_BYTES : 0);
    if (!end.is_whole() && size > TAIL_BYTES)
        end = end_of(log, 0);
    if (end.is_whole())
        return end;
    const log_end older = end_of(open_to_read(folder, FLASH_FILE_OLDER_EVENTS), 0);
    if (!end.last_work)
        end.last_work = older.last_work;
    if (end.sequence == 0) {
        end.sequence = std::max(older.sequence, load_totals(folder).sequence);
        end.chain = end.sequence == older.sequence ? older.chain : "";
    }
    return end;
}

bool is_cut_off(const unique_fd &log)
{
    const std::uint64_t size = size_of(log);
    return size > 0 && content_of(log, size - 1, 1) != "\n";
}

bool store_totals(const flash_folder &folder, const flash_event_totals &totals)
{
    const std::string content = flash_event_totals_format(totals);
    const unique_fd file(::openat(folder.fd.get(), NEW_TOTALS, O_WRONLY | O_CREAT | O_TRUNC | SAFE_TO_OPEN, 0644));
    return file && ::write(file.get(), content.data(), content.size()) == static_cast<ssize_t>(content.size()) &&
           ::renameat(folder.fd.get(), NEW_TOTALS, folder.fd.get(), FLASH_FILE_EVENT_TOTALS) == 0;
}

// The totals first: a log whose events are in no totals must not go, and events that are in both count once.
bool turn_over(const flash_folder &folder, const unique_fd &log)
{
    const unique_fd file = open_to_read(folder, FLASH_FILE_EVENT_TOTALS);
    if (!file && errno != ENOENT)
        return false; // they are there, and are not to be replaced by less
    const std::string content = content_of(file, 0, FLASH_EVENT_LOG_BYTES_MAX);
    if (content.size() != std::min(size_of(file), FLASH_EVENT_LOG_BYTES_MAX))
        return false;
    flash_event_totals totals = flash_event_totals_parse(content);
    if (const log_end end = end_of(log, 0); end.sequence != 0 && totals.sequence > end.sequence)
        totals = {}; // damaged: they would count nothing any more
    totals.count_all(events_in(content_of(log, 0, READ_BYTES_MAX)));
    return store_totals(folder, totals) &&
           ::renameat(folder.fd.get(), FLASH_FILE_EVENTS, folder.fd.get(), FLASH_FILE_OLDER_EVENTS) == 0;
}

void put_line(const unique_fd &log, const std::string &line)
{
    const std::uint64_t size_before = size_of(log);
    const ssize_t put = log ? ::write(log.get(), line.data(), line.size()) : -1;
    if (put > 0 && put != static_cast<ssize_t>(line.size()))
        (void)!::ftruncate(log.get(), static_cast<off_t>(size_before));
}

void append(const flash_folder &folder, flash_event event, const flash_event_condition &allowed)
{
    const flash_folder_lock lock(folder);
    unique_fd log = open_to_append(folder);
    if (!log)
        return;
    const log_end end = find_end(folder, log);
    if (allowed && !allowed(end.last_work))
        return;
    if (event.time.empty())
        event.time = flash_event_time_now();
    event.pid = static_cast<std::uint32_t>(::getpid());
    event.sequence = end.sequence + 1;
    event.chain = flash_event_chain(end.chain, event);
    const std::string line = flash_event_format(event);
    if (size_of(log) + line.size() >= FLASH_EVENT_LOG_BYTES_MAX && turn_over(folder, log))
        log = open_to_append(folder);
    put_line(log, is_cut_off(log) ? "\n" + line : line);
}

} // namespace

std::string flash_event_time_now()
{
    return utc_now_microseconds().substr(0, MILLISECONDS_FORM.size()) + "Z";
}

void flash_event_append(const flash_folder &folder, flash_event event, const flash_event_condition &allowed)
{
    if (folder.fd)
        append(folder, std::move(event), allowed);
}

flash_event_history flash_event_history_of(unsigned slot, unsigned instance)
{
    const flash_folder folder = open_flash_folder(slot, instance);
    if (!folder.fd)
        return {};
    // In this order nothing is missed when the log is turned over meanwhile; what is read twice has one sequence.
    flash_event_history history{.events = {}, .totals = load_totals(folder)};
    const unique_fd log = open_to_read(folder, FLASH_FILE_EVENTS);
    const unique_fd older = open_to_read(folder, FLASH_FILE_OLDER_EVENTS);
    for (const unique_fd *file : {&older, &log}) {
        for (flash_event &event : events_in(content_of(*file, 0, READ_BYTES_MAX))) {
            if (history.events.empty() || event.sequence > history.events.back().sequence)
                history.events.push_back(std::move(event));
        }
    }
    history.totals.count_all(history.events);
    return history;
}

std::optional<flash_event> flash_event_last_of(unsigned slot, unsigned instance)
{
    const flash_folder folder = open_flash_folder(slot, instance);
    if (!folder.fd)
        return std::nullopt;
    const unique_fd log = open_to_read(folder, FLASH_FILE_EVENTS);
    const std::uint64_t size = size_of(log);
    std::vector<flash_event> events =
        events_in(content_of(log, size > TAIL_BYTES ? size - TAIL_BYTES : 0, READ_BYTES_MAX));
    if (events.empty())
        events = events_in(content_of(open_to_read(folder, FLASH_FILE_OLDER_EVENTS), 0, READ_BYTES_MAX));
    return events.empty() ? std::nullopt : std::optional(std::move(events.back()));
}

flash_event_log_state flash_event_log_state_of(unsigned slot, unsigned instance)
{
    struct stat status {
    };
    const std::string path = flash_file_path(slot, instance, FLASH_FILE_EVENTS);
    if (::fstatat(chassis_dir_fd(), path.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return {};
    return {static_cast<std::uint64_t>(status.st_ino), static_cast<std::uint64_t>(status.st_size)};
}
