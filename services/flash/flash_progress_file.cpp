#include "flash_progress_file.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "c_boundary.h"
#include "chassis_dir.h"
#include "flash_folder.h"
#include "flash_geometry.h"
#include "unique_fd.h"
#include "utc_time.h"

namespace
{

constexpr const char *PHASE_NAMES[] = {"erase", "write", "verify"}; // from BIOS_PHASE_ERASE on
constexpr std::size_t LINE_BYTES = 56;
constexpr std::size_t CHECK_BYTES = 9; // 8 digits and the newline
constexpr std::size_t SINCE_BYTES = 20;
constexpr unsigned READ_TRIES = 4;

std::uint32_t checksum_of(std::string_view text)
{
    std::uint32_t sum = 2166136261U; // FNV-1a
    for (const char character : text)
        sum = (sum ^ static_cast<unsigned char>(character)) * 16777619U;
    return sum;
}

struct flock whole_file()
{
    struct flock region = {};
    region.l_type = F_WRLCK;
    region.l_whence = SEEK_SET;
    return region;
}

// The file that this process writes for one flash. It stays open until the process ends, and with it the lock.
struct written_file {
    unique_fd file;
    pid_t process = 0; // that has opened it: a forked child has no lock
    std::string since;
    std::string content;
    bool locked = false;
};

bool is_at(const unique_fd &file, const std::string &path)
{
    struct stat own, there;
    return file && ::fstat(file.get(), &own) == 0 &&
           ::fstatat(chassis_dir_fd(), path.c_str(), &there, AT_SYMLINK_NOFOLLOW) == 0 &&
           own.st_dev == there.st_dev && own.st_ino == there.st_ino;
}

bool open_written(written_file &written, const std::string &path)
{
    if (written.process == ::getpid() && is_at(written.file, path))
        return true;
    written = {};
    unique_fd file(::openat(chassis_dir_fd(), path.c_str(),
                            O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0644));
    struct stat status;
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return false;
    if (status.st_size > static_cast<off_t>(LINE_BYTES) && ::ftruncate(file.get(), 0) != 0)
        return false;
    written.file = std::move(file);
    written.process = ::getpid();
    written.since = utc_now();
    return true;
}

void note(unsigned slot, unsigned instance, flash_progress_line line)
{
    // Never freed: the locks last as long as the process, its exit handlers included.
    static auto *const all = new std::array<written_file, FLASH_INSTANCE_COUNT>;
    if (instance >= FLASH_INSTANCE_COUNT)
        return;
    written_file &written = (*all)[instance];
    if (!open_written(written, flash_file_path(slot, instance, FLASH_FILE_PROGRESS)))
        return;
    line.pid = static_cast<std::uint32_t>(written.process);
    line.since = written.since;
    std::string content = flash_progress_format(line);
    if (content == written.content)
        return;
    if (::pwrite(written.file.get(), content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()))
        written.content = std::move(content);
    else
        (void)!::ftruncate(written.file.get(),
                           0); // the line of another programming is not to be taken for this one's
    // After the line: a lock tells that the line is of its holder.
    if (const struct flock region = whole_file(); !written.locked)
        written.locked = ::fcntl(written.file.get(), F_SETLK, &region) == 0;
}

// Whether another process has a record lock somewhere in the file.
bool is_locked(const unique_fd &file)
{
    struct flock region = whole_file();
    return file && ::fcntl(file.get(), F_GETLK, &region) == 0 && region.l_type != F_UNLCK;
}

unique_fd open_to_look(unsigned slot, unsigned instance, const char *name)
{
    return unique_fd(::openat(chassis_dir_fd(), flash_file_path(slot, instance, name).c_str(),
                              O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

// A line that is being written over does not check, and is read again.
std::optional<flash_progress_line> read_line(const unique_fd &file)
{
    char text[LINE_BYTES + 1];
    for (unsigned attempt = 0; file && attempt < READ_TRIES; ++attempt) {
        const ssize_t got = ::pread(file.get(), text, sizeof text, 0);
        if (got < 0)
            return std::nullopt;
        if (auto line = flash_progress_parse({text, static_cast<std::size_t>(got)}); line)
            return line;
    }
    return std::nullopt;
}

} // namespace

std::string flash_progress_format(const flash_progress_line &line)
{
    char text[128];
    (void)std::snprintf(text, sizeof text, "%-6s %3u %3u %10u %s ", PHASE_NAMES[line.phase - BIOS_PHASE_ERASE],
                        line.percent, std::min(line.attempt, FLASH_PROGRESS_ATTEMPT_MAX), line.pid,
                        line.since.c_str());
    const std::string body = text;
    (void)std::snprintf(text, sizeof text, "%08x\n", checksum_of(body));
    return body + text;
}

std::optional<flash_progress_line> flash_progress_parse(std::string_view text)
{
    if (text.size() != LINE_BYTES)
        return std::nullopt;
    const std::string line(text);
    flash_progress_line parsed;
    char phase[8] = "";
    char since[SINCE_BYTES + 1] = "";
    std::uint32_t check = 0;
    if (std::sscanf(line.c_str(), "%7s %3u %3u %10u %20s %8x", phase, &parsed.percent, &parsed.attempt, &parsed.pid,
                    since, &check) != 6)
        return std::nullopt;
    if (check != checksum_of(text.substr(0, LINE_BYTES - CHECK_BYTES)) || parsed.percent > 100)
        return std::nullopt;
    const auto *known = std::find(std::begin(PHASE_NAMES), std::end(PHASE_NAMES), std::string_view(phase));
    if (known == std::end(PHASE_NAMES))
        return std::nullopt;
    parsed.phase = static_cast<bios_programming_phase>(BIOS_PHASE_ERASE +
                                                       static_cast<unsigned>(known - std::begin(PHASE_NAMES)));
    parsed.since = since;
    return parsed;
}

void flash_progress_note(unsigned slot, unsigned instance, bios_programming_phase phase, std::uint32_t percent,
                         std::uint32_t attempt) noexcept
{
    best_effort([&] { // the caller's business is the flash
        note(slot, instance, {.phase = phase, .percent = percent, .attempt = attempt, .pid = 0, .since = {}});
    });
}

flash_activity flash_activity_of(unsigned slot, unsigned instance)
{
    flash_activity activity;
    activity.marked = flash_folder_has_marker(flash_folder_path(slot, instance));
    const unique_fd progress = open_to_look(slot, instance, FLASH_FILE_PROGRESS);
    activity.has_writer = is_locked(progress) || is_locked(open_to_look(slot, instance, FLASH_FILE_WRITER));
    activity.last = read_line(progress);
    return activity;
}
