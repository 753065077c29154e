#include "security_floor.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "card_file.h"
#include "chassis_dir.h"
#include "text_lines.h"
#include "unique_fd.h"
#include "write_all.h"

namespace
{

constexpr const char *LOCK_SUFFIX = ".lock";
constexpr const char *FRESH_SUFFIX = ".new"; // written under the lock

bool parse_floor(std::string_view text, std::uint32_t &floor_out)
{
    text = trimmed(text.substr(0, text.find('\n')));
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), floor_out);
    return !text.empty() && error == std::errc() && end == text.data() + text.size();
}

// Replaces the file so that both the number and the name are on the disk. false with errno.
bool replace_durably(int folder, std::uint32_t floor)
{
    const std::string fresh = std::string(SECURITY_FLOOR_FILE) + FRESH_SUFFIX;
    const std::string text = std::to_string(floor) + "\n";
    (void)::unlinkat(folder, fresh.c_str(), 0); // of a process that was killed
    const unique_fd file(
        ::openat(folder, fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    return file && write_all(file.get(), text.data(), text.size()) && ::fsync(file.get()) == 0 &&
           ::renameat(folder, fresh.c_str(), folder, SECURITY_FLOOR_FILE) == 0 && ::fsync(folder) == 0;
}

} // namespace

bool security_floor_load(std::uint32_t &floor_out, std::string &problem_out)
{
    std::string text;
    switch (read_card_file(SECURITY_FLOOR_FILE, text, problem_out)) {
    case card_file_state::absent:
        floor_out = 0;
        return true;
    case card_file_state::unusable:
        return false;
    case card_file_state::read:
        break;
    }
    std::uint32_t floor = 0;
    if (!parse_floor(text, floor)) {
        problem_out = std::string(SECURITY_FLOOR_FILE) + ": holds no number";
        return false;
    }
    floor_out = floor;
    return true;
}

bool security_floor_raise(std::uint32_t security_version, std::string &problem_out)
{
    const auto failed = [&problem_out] {
        problem_out = std::string(SECURITY_FLOOR_FILE) + ": " + std::strerror(errno);
        return false;
    };
    const unique_fd folder(::openat(chassis_dir_fd(), chassis_slot_path(chassis_own_slot(), ".").c_str(),
                                    O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const unique_fd lock(::openat(folder.get(), (std::string(SECURITY_FLOOR_FILE) + LOCK_SUFFIX).c_str(),
                                  O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!folder || !lock)
        return failed();
    while (::flock(lock.get(), LOCK_EX) != 0) {
        if (errno != EINTR)
            return failed();
    }
    std::uint32_t floor = 0;
    if (!security_floor_load(floor, problem_out))
        return false;
    return security_version <= floor || replace_durably(folder.get(), security_version) || failed();
}
