#include "watched_file.h"

#include <algorithm>
#include <cerrno>
#include <pthread.h>
#include <sys/inotify.h>
#include <vector>

#include "chassis_dir.h"
#include "inside_folder.h"
#include "monotonic_clock.h"

namespace
{

constexpr unsigned CALLS_BEFORE_WATCHING = 64; // a tool ends before that, and its user has few watches
constexpr std::uint32_t FILE_CHANGES = IN_MODIFY | IN_ATTRIB | IN_MOVE_SELF | IN_DELETE_SELF;
constexpr std::uint32_t FOLDER_CHANGES =
    IN_ONLYDIR | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_MOVE_SELF | IN_DELETE_SELF;
constexpr std::uint64_t NOT_WATCHED = 0;

// What this process watches.
struct watch {
    std::vector<const watched_file *> files;
    unique_fd notes;              // none while nothing is watched
    std::uint64_t generation = 0; // grows with what is noted; never NOT_WATCHED while watching
    unsigned calls_not_watched = 0;
    std::int64_t looked_at_us = 0; // the tick at which notes were fetched
};

void begin_anew_in_child();

watch &own_watch()
{
    static watch *const the_watch = [] {
        (void)::pthread_atfork(nullptr, nullptr, begin_anew_in_child);
        return new watch; // never freed: files may be asked for until the process has ended
    }();
    return *the_watch;
}

// The parent's notes come to its child's descriptor, too, and would be missing there.
void begin_anew_in_child()
{
    watch &watch = own_watch();
    watch.notes.reset();
    watch.calls_not_watched = 0;
}

bool watch_path(const watch &watch, const std::string &path, std::uint32_t changes)
{
    return ::inotify_add_watch(watch.notes.get(), path.c_str(), changes) >= 0 || errno == ENOENT ||
           errno == ENOTDIR;
}

// The folders first: what is made or replaced meanwhile is then noted in its folder.
bool watch_file(const watch &watch, const std::string &path)
{
    bool watched = watch_path(watch, ".", FOLDER_CHANGES);
    for (std::size_t end = path.find('/'); end != std::string::npos; end = path.find('/', end + 1))
        watched = watched && watch_path(watch, path.substr(0, end), FOLDER_CHANGES);
    return watched && watch_path(watch, path, FILE_CHANGES);
}

// Watches what is there now under the files' names. Nothing is watched when that fails.
void watch_files(watch &watch)
{
    const bool all =
        inside_folder(chassis_dir_fd(), [&] {
            return std::all_of(watch.files.begin(), watch.files.end(),
                               [&](const watched_file *file) { return watch_file(watch, file->path()); })
                       ? 0
                       : -1;
        }) == 0;
    if (!all)
        watch.notes.reset();
    ++watch.generation;
}

void start(watch &watch)
{
    const int before = errno;
    watch.notes.reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    watch.looked_at_us = monotonic_tick_us();
    if (watch.notes)
        watch_files(watch);
    errno = before;
}

void fetch_notes(watch &watch)
{
    const int before = errno;
    alignas(inotify_event) char notes[4096];
    bool noted = false;
    while (::read(watch.notes.get(), notes, sizeof notes) > 0)
        noted = true;
    if (noted)
        watch_files(watch); // a name may stand for another file now
    errno = before;
}

// The state of the watch; another one when anything may have changed.
std::uint64_t generation_now(watch &watch)
{
    if (!watch.notes) {
        if (++watch.calls_not_watched == CALLS_BEFORE_WATCHING)
            start(watch);
    } else if (const std::int64_t now = monotonic_tick_us(); now != watch.looked_at_us) {
        watch.looked_at_us = now;
        fetch_notes(watch);
    }
    return watch.notes ? watch.generation : NOT_WATCHED;
}

} // namespace

watched_file::watched_file(std::string path) : path_(std::move(path))
{
    watch &watch = own_watch();
    watch.files.push_back(this);
    if (watch.notes)
        watch_files(watch);
}

watched_file::~watched_file()
{
    std::erase(own_watch().files, this);
}

bool watched_file::may_have_changed()
{
    const std::uint64_t now = generation_now(own_watch());
    if (now != NOT_WATCHED && now == seen_)
        return false;
    seen_ = now;
    return true;
}

void watched_files_restart()
{
    watch &watch = own_watch();
    if (watch.notes)
        start(watch);
}
