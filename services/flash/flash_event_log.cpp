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
#include "write_all.h"

namespace
{

// Whose log it is.
struct flash_name {
    unsigned slot;
    unsigned instance;

    bool is_of(const flash_event &event) const { return event.slot == slot && event.instance == instance; }
};

constexpr std::string_view MILLISECONDS_FORM = "2026-01-31T23:59:59.123";
constexpr std::uint64_t TAIL_BYTES = 4 * FLASH_EVENT_LINE_BYTES_MAX;
constexpr std::uint64_t READ_BYTES_MAX = 4 * FLASH_EVENT_LOG_BYTES_MAX; // of a file that somebody else has written
constexpr off_t RESERVED_BYTES = 16 * FLASH_EVENT_LINE_BYTES_MAX;       // of a programming with all its attempts
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

// The whole lines that are events of a flash.
std::vector<flash_event> events_in(std::string_view content, const flash_name &flash)
{
    std::vector<flash_event> events;
    for (std::size_t end = content.find('\n'); end != std::string_view::npos; end = content.find('\n')) {
        if (auto event = flash_event_parse(content.substr(0, end)); event && flash.is_of(*event))
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

// A line with a number that was there before is a copy, and ends nothing.
log_end end_of(const unique_fd &log, const flash_name &flash, std::uint64_t from)
{
    log_end end;
    for (flash_event &event : events_in(content_of(log, from, READ_BYTES_MAX), flash)) {
        if (event.sequence <= end.sequence)
            continue;
        end.sequence = event.sequence;
        end.chain = event.chain;
        if (event.kind != flash_event_kind::refused)
            end.last_work = std::move(event);
    }
    return end;
}

// From as little as tells it.
log_end find_end(const flash_folder &folder, const flash_name &flash, const unique_fd &log)
{
    const std::uint64_t size = size_of(log);
    log_end end = end_of(log, flash, size > TAIL_BYTES ? size - TAIL_BYTES : 0);
    if (!end.is_whole() && size > TAIL_BYTES)
        end = end_of(log, flash, 0);
    if (end.is_whole())
        return end;
    const log_end older = end_of(open_to_read(folder, FLASH_FILE_OLDER_EVENTS), flash, 0);
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
bool turn_over(const flash_folder &folder, const flash_name &flash, const unique_fd &log)
{
    const unique_fd file = open_to_read(folder, FLASH_FILE_EVENT_TOTALS);
    if (!file && errno != ENOENT)
        return false; // they are there, and are not to be replaced by less
    const std::string content = content_of(file, 0, FLASH_EVENT_LOG_BYTES_MAX);
    if (content.size() != std::min(size_of(file), FLASH_EVENT_LOG_BYTES_MAX))
        return false;
    flash_event_totals totals = flash_event_totals_parse(content);
    if (const log_end end = end_of(log, flash, 0); end.sequence != 0 && totals.sequence > end.sequence)
        totals = {}; // damaged: they would count nothing any more
    totals.count_all(events_in(content_of(log, 0, READ_BYTES_MAX), flash));
    return store_totals(folder, totals) &&
           ::renameat(folder.fd.get(), FLASH_FILE_EVENTS, folder.fd.get(), FLASH_FILE_OLDER_EVENTS) == 0;
}

// All of the line or nothing. 0, or why not, of errno.
int put_line(const unique_fd &log, const std::string &line)
{
    const std::uint64_t size_before = size_of(log);
    if (write_all(log.get(), line.data(), line.size()))
        return 0;
    const int error = errno;
    (void)!::ftruncate(log.get(), static_cast<off_t>(size_before));
    return error;
}

// A log that is open to be added to, under the folder's lock.
class open_log
{
public:
    open_log(const flash_folder &folder, const flash_name &flash)
        : folder_(folder),
          flash_(flash),
          file_(open_to_append(folder)),
          error_(errno),
          end_(find_end(folder, flash, file_))
    {
    }

    const log_end &end() const { return end_; }

    // 0, or why not, of errno.
    int put(flash_event event)
    {
        if (!file_)
            return error_;
        if (event.time.empty())
            event.time = flash_event_time_now();
        event.pid = static_cast<std::uint32_t>(::getpid());
        event.sequence = end_.sequence + 1;
        event.chain = flash_event_chain(end_.chain, event);
        const std::string line = flash_event_format(event);
        if (size_of(file_) + line.size() >= FLASH_EVENT_LOG_BYTES_MAX && turn_over(folder_, flash_, file_))
            file_ = open_to_append(folder_);
        if (const int error = file_ ? put_line(file_, is_cut_off(file_) ? "\n" + line : line) : errno; error != 0)
            return error;
        if (event.kind == flash_event_kind::begun) // best effort: some file systems cannot
            (void)::fallocate(file_.get(), FALLOC_FL_KEEP_SIZE, static_cast<off_t>(size_of(file_)), RESERVED_BYTES);
        end_.sequence = event.sequence;
        end_.chain = event.chain;
        if (event.kind != flash_event_kind::refused)
            end_.last_work = std::move(event);
        return 0;
    }

private:
    const flash_folder &folder_;
    flash_name flash_;
    unique_fd file_;
    int error_;
    log_end end_;
};

flash_event lost_event(const flash_name &flash, const lost_events &lost)
{
    return {.slot = flash.slot,
            .instance = flash.instance,
            .kind = flash_event_kind::lost,
            .lost = lost.count,
            .reason = lost.is_full ? "disk full" : "write failed"};
}

std::optional<flash_event_loss> append(const flash_folder &folder, flash_event event,
                                       const flash_event_condition &allowed)
{
    const flash_name flash{event.slot, event.instance};
    const flash_folder_lock lock(folder);
    open_log log(folder, flash);
    int error = 0;
    // Before the question: what is lost may have been the last work.
    if (const lost_events lost = lost_events_of(folder, log.end().sequence); lost.count != 0)
        error = log.put(lost_event(flash, lost));
    if (allowed && !allowed(log.end().last_work))
        return std::nullopt;
    if (error == 0)
        error = log.put(std::move(event));
    if (error != 0)
        return flash_event_loss{lost_events_add(folder, log.end().sequence, error), error};
    lost_events_prepare(folder);
    return std::nullopt;
}

} // namespace

std::string flash_event_time_now()
{
    return utc_now_microseconds().substr(0, MILLISECONDS_FORM.size()) + "Z";
}

void flash_event_log_prepare(unsigned slot, unsigned instance)
{
    const flash_folder folder = open_flash_folder(slot, instance);
    if (folder.fd && ::flock(folder.fd.get(), LOCK_EX | LOCK_NB) == 0) // until the folder is closed
        lost_events_prepare(folder);
}

std::optional<flash_event_loss> flash_event_append(const flash_folder &folder, flash_event event,
                                                   const flash_event_condition &allowed)
{
    return folder.fd ? append(folder, std::move(event), allowed) : std::nullopt;
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
        for (flash_event &event : events_in(content_of(*file, 0, READ_BYTES_MAX), {slot, instance})) {
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
    const flash_name flash{slot, instance};
    const unique_fd log = open_to_read(folder, FLASH_FILE_EVENTS);
    const std::uint64_t size = size_of(log);
    std::vector<flash_event> events =
        events_in(content_of(log, size > TAIL_BYTES ? size - TAIL_BYTES : 0, READ_BYTES_MAX), flash);
    if (events.empty())
        events = events_in(content_of(open_to_read(folder, FLASH_FILE_OLDER_EVENTS), 0, READ_BYTES_MAX), flash);
    const auto last = std::ranges::max_element(events, {}, &flash_event::sequence);
    return last == events.end() ? std::nullopt : std::optional(std::move(*last));
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
