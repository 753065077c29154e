#include "flash_lost_events.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <fcntl.h>
#include <map>
#include <sys/stat.h>
#include <unistd.h>

#include "regular_file.h"

namespace
{

constexpr std::size_t LINE_BYTES = 38;
constexpr std::uint64_t COUNT_MAX = 9'999'999'999;
constexpr int SAFE_TO_OPEN = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

// What no file could take, by the folder's path. Never freed: exit handlers use it.
std::map<std::string, lost_events> &known_here()
{
    static auto *const all = new std::map<std::string, lost_events>;
    return *all;
}

unique_fd open_file(const flash_folder &folder, int flags)
{
    return if_regular(unique_fd(::openat(folder.fd.get(), FLASH_FILE_LOST_EVENTS, flags | SAFE_TO_OPEN, 0644)));
}

lost_events in_file(const flash_folder &folder)
{
    const unique_fd file = open_file(folder, O_RDONLY);
    char text[LINE_BYTES + 1];
    const ssize_t got = file ? ::pread(file.get(), text, sizeof text, 0) : -1;
    return got < 0 ? lost_events() : lost_events_parse({text, static_cast<std::size_t>(got)});
}

bool store(const flash_folder &folder, const lost_events &lost)
{
    const unique_fd file = open_file(folder, O_WRONLY | O_CREAT);
    const std::string line = lost_events_format(lost);
    return file && ::pwrite(file.get(), line.data(), line.size(), 0) == static_cast<ssize_t>(line.size());
}

} // namespace

std::string lost_events_format(const lost_events &lost)
{
    char text[64];
    (void)std::snprintf(text, sizeof text, "%020" PRIu64 " %010" PRIu64 " %-5s\n", lost.after,
                        std::min(lost.count, COUNT_MAX), lost.is_full ? "full" : "other");
    return text;
}

lost_events lost_events_parse(std::string_view text)
{
    lost_events lost;
    char why[6] = "";
    if (std::sscanf(std::string(text).c_str(), "%20" SCNu64 " %10" SCNu64 " %5s", &lost.after, &lost.count, why) !=
        3)
        return {};
    lost.is_full = std::string_view(why) == "full";
    return lost_events_format(lost) == text ? lost : lost_events();
}

lost_events lost_events_of(const flash_folder &folder, std::uint64_t last_sequence)
{
    lost_events lost = in_file(folder);
    if (lost.after != last_sequence)
        lost = {.after = last_sequence};
    const auto here = known_here().find(folder.path);
    if (here == known_here().end() || here->second.after != last_sequence)
        return lost;
    lost.count += here->second.count;
    lost.is_full = here->second.is_full;
    return lost;
}

lost_events lost_events_add(const flash_folder &folder, std::uint64_t last_sequence, int error)
{
    const bool is_full = error == ENOSPC || error == EDQUOT || error == EFBIG;
    lost_events lost = in_file(folder);
    if (lost.after != last_sequence)
        lost = {.after = last_sequence};
    lost.is_full = is_full;
    ++lost.count;
    if (!store(folder, lost)) {
        lost_events &here = known_here()[folder.path];
        if (here.after != last_sequence)
            here = {.after = last_sequence};
        here.is_full = is_full;
        ++here.count;
    }
    return lost_events_of(folder, last_sequence);
}

void lost_events_prepare(const flash_folder &folder)
{
    struct stat status {
    };
    const bool is_there = ::fstatat(folder.fd.get(), FLASH_FILE_LOST_EVENTS, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
                          status.st_size >= static_cast<off_t>(LINE_BYTES);
    if (!is_there)
        (void)store(folder, {});
}
