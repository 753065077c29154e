#include "chassis_key.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

#include "hex_text.h"
#include "unique_fd.h"

namespace
{

constexpr std::size_t KEY_TEXT_BYTES = 2 * SHARED_KEY_BYTES;

bool is_own(int file)
{
    struct stat status;
    if (::fstat(file, &status) != 0)
        return false;
    const bool is_secret = S_ISREG(status.st_mode) && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0 &&
                           (status.st_uid == 0 || status.st_uid == ::geteuid());
    if (!is_secret)
        errno = EACCES;
    return is_secret;
}

} // namespace

std::optional<shared_key> read_chassis_key(const char *path)
{
    const unique_fd file(::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file || !is_own(file.get()))
        return std::nullopt;
    char text[KEY_TEXT_BYTES + 2]; // with a newline, and room to see that there is more
    const ssize_t got = ::read(file.get(), text, sizeof text);
    if (got < 0)
        return std::nullopt;
    std::string_view digits(text, static_cast<std::size_t>(got));
    if (digits.ends_with('\n'))
        digits.remove_suffix(1);
    shared_key key;
    if (!parse_hex_text(digits, key)) {
        errno = EINVAL;
        return std::nullopt;
    }
    return key;
}

const shared_key *chassis_key()
{
    static std::optional<shared_key> key;
    if (!key)
        key = read_chassis_key(CHASSIS_KEY_FILE);
    return key ? &*key : nullptr;
}
