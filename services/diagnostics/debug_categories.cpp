// Debug categories of a card: which are registered, which are switched on, and the debug print.
//
// The flags of a card are a file that a person or a tool writes while the card runs. They are asked for with
// every log line; the file is therefore only looked at when it may have changed, and read again when it has.
#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <exception>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>

#include "chassis_diagnostics.h"
#include "chassis_dir.h"
#include "line_file.h"
#include "sdwrap.h"
#include "watched_file.h"

namespace
{

constexpr std::uint32_t FIRST_CATEGORY = 100; // the categories have consecutive numbers, in the order of the names
constexpr std::size_t DEBUG_MESSAGE_BYTES = 1024;

struct known_flags {
    struct stat file {
    };                      // what the flags were read from; all zero: no file
    std::uint32_t mask = 0; // bit n: category FIRST_CATEGORY + n is on
    bool stale = true;
};

known_flags own_flags;

bool same_file(const struct stat &a, const struct stat &b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

std::uint32_t read_mask(unsigned slot)
{
    const auto &names = chassis_debug_flag_names();
    std::uint32_t mask = 0;
    for (const std::string &flag : chassis_read_debug_flags(slot))
        mask |= 1U << (std::find(names.begin(), names.end(), flag) - names.begin());
    return mask;
}

watched_file &flags_file(unsigned slot)
{
    static unsigned slot_of_file = slot;
    static std::optional<watched_file> file;
    if (!file || slot != slot_of_file) {
        file.emplace(chassis_debug_flags_path(slot));
        own_flags.stale = true;
        slot_of_file = slot;
    }
    return *file;
}

std::uint32_t current_mask()
{
    const unsigned slot = chassis_own_slot();
    watched_file &flags = flags_file(slot);
    if (!flags.may_have_changed() && !own_flags.stale)
        return own_flags.mask;
    struct stat file {
    };
    if (::fstatat(chassis_dir_fd(), flags.path().c_str(), &file, 0) != 0)
        own_flags = {.stale = false};
    else if (own_flags.stale || !same_file(file, own_flags.file))
        own_flags = {file, read_mask(slot), false};
    return own_flags.mask;
}

} // namespace

int32_t sdwrap_dbg_init(int32_t, const char *, const char *, uint32_t count, const char *const *names, uint32_t,
                        uint32_t, uint32_t)
try {
    if (names == nullptr && count > 0) {
        errno = EINVAL;
        return -1;
    }
    std::string lines;
    for (uint32_t index = 0; index < count; ++index)
        lines.append(names[index] != nullptr ? names[index] : "").append("\n");
    const unsigned slot = chassis_own_slot();
    if (!make_slot_folder(slot, "debug"))
        return -1;
    return chassis_write_file(chassis_slot_path(slot, "debug/categories"), lines) ? 0 : -1;
} catch (const std::exception &) {
    errno = ENOMEM;
    return -1;
}

int32_t sdwrap_chk_int(uint32_t category, uint32_t, uint32_t, uint32_t)
try {
    if (category < FIRST_CATEGORY || category - FIRST_CATEGORY >= chassis_debug_flag_names().size())
        return 0;
    return (current_mask() >> (category - FIRST_CATEGORY) & 1U) != 0 ? 1 : 0;
} catch (const std::exception &) {
    return 0;
}

void chassis_debug_flags_have_changed()
{
    own_flags.stale = true;
}

void buginf(const char *format, ...)
try {
    if (format == nullptr)
        return;
    char message[DEBUG_MESSAGE_BYTES];
    std::va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    const unsigned slot = chassis_own_slot();
    if (make_slot_folder(slot, "debug"))
        (void)append_line(chassis_slot_path(slot, "debug/output"), message); // no one to report a failure to
} catch (const std::exception &) {
    // A debug message that finds no memory is lost.
}
