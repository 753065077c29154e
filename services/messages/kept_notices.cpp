#include "kept_notices.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "bios_opcodes.h"
#include "c_boundary.h"
#include "chassis_dir.h"
#include "regular_file.h"
#include "utc_time.h"

namespace
{

constexpr const char *DIRECTORY_NAME = "transport";
constexpr const char *FILE_NAME = "transport/notices";
constexpr const char *OLDER_FILE_NAME = "transport/notices.1";
constexpr std::size_t TIME_BYTES = 27;
constexpr std::size_t PIECE_BYTES = std::size_t{64} << 10; // more than the longest line
constexpr unsigned TURNS_MAX =
    8; // a file is followed by the next; more than two there are only while it is written
constexpr int COMMON_FLAGS = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
constexpr const char *HEXADECIMAL = "0123456789abcdef";

// The field up to the next blank, taken from the front of the line with that blank.
std::string_view take_field(std::string_view &line)
{
    const std::size_t end = line.find(' ');
    const std::string_view field = line.substr(0, end);
    line.remove_prefix(end == std::string_view::npos ? line.size() : end + 1);
    return field;
}

template<class Number>
bool parse_number(std::string_view text, Number &number, int base)
{
    const auto [rest, failure] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    return failure == std::errc{} && rest == text.data() + text.size();
}

bool is_time(std::string_view text)
{
    constexpr std::string_view FORM = "dddd-dd-ddTdd:dd:dd.ddddddZ";
    static_assert(FORM.size() == TIME_BYTES);
    if (text.size() != FORM.size())
        return false;
    for (std::size_t place = 0; place < FORM.size(); ++place) {
        const bool digit = text[place] >= '0' && text[place] <= '9';
        if (FORM[place] == 'd' ? !digit : text[place] != FORM[place])
            return false;
    }
    return true;
}

bool parse_address(std::string_view text, mts_address_t &address)
{
    return text.size() == 17 && text[8] == '.' && parse_number(text.substr(0, 8), address.node, 16) &&
           parse_number(text.substr(9), address.sap, 16);
}

bool parse_payload(std::string_view text, std::vector<std::uint8_t> &payload)
{
    if (text == "-")
        return true;
    if (text.empty() || text.size() % 2 != 0 || text.size() / 2 > NOTICE_PAYLOAD_BYTES_MAX)
        return false;
    for (std::size_t place = 0; place < text.size(); place += 2) {
        std::uint8_t byte = 0;
        if (!parse_number(text.substr(place, 2), byte, 16))
            return false;
        payload.push_back(byte);
    }
    return true;
}

unique_fd open_regular(const char *name, int flags)
{
    return if_regular(unique_fd(::openat(chassis_dir_fd(), name, flags | COMMON_FLAGS, 0600)));
}

unique_fd open_to_append()
{
    unique_fd file = open_regular(FILE_NAME, O_RDWR | O_APPEND | O_CREAT);
    if (file || errno != ENOENT || ::mkdirat(chassis_dir_fd(), DIRECTORY_NAME, 0700) != 0)
        return file;
    return open_regular(FILE_NAME, O_RDWR | O_APPEND | O_CREAT);
}

bool is_same_file(const unique_fd &file, const char *name)
{
    struct stat own, there;
    return ::fstat(file.get(), &own) == 0 && ::fstatat(chassis_dir_fd(), name, &there, AT_SYMLINK_NOFOLLOW) == 0 &&
           own.st_dev == there.st_dev && own.st_ino == there.st_ino;
}

std::int64_t size_of(const unique_fd &file)
{
    struct stat status;
    return ::fstat(file.get(), &status) == 0 ? status.st_size : 0;
}

// Makes a full file the older one. Of several processes that come to it one does it; the others find a new file.
void turn_over_if_full(unique_fd &file)
{
    if (size_of(file) < NOTICES_FILE_BYTES_MAX)
        return;
    if (::flock(file.get(), LOCK_EX | LOCK_NB) == 0 && is_same_file(file, FILE_NAME))
        (void)::renameat(chassis_dir_fd(), FILE_NAME, chassis_dir_fd(), OLDER_FILE_NAME);
    if (unique_fd fresh = open_to_append(); fresh)
        file = std::move(fresh);
}

// Whether the last line was cut short, by a full disk for instance.
bool ends_inside_line(const unique_fd &file)
{
    const std::int64_t size = size_of(file);
    char last = '\n';
    return size > 0 && ::pread(file.get(), &last, 1, size - 1) == 1 && last != '\n';
}

void append(const kept_notice &notice)
{
    unique_fd file = open_to_append();
    if (!file)
        return;
    turn_over_if_full(file);
    const std::string line = (ends_inside_line(file) ? "\n" : "") + kept_notice_format(notice) + "\n";
    (void)!::write(file.get(), line.data(), line.size()); // what cannot be kept is left out
}

} // namespace

bool kept_notice_is_one(std::uint32_t node, std::uint32_t opcode)
{
    return node == MTS_NODE_LISTENERS || opcode == MTS_OPC_BIOS_PROGRAMMING_DONE;
}

std::string kept_notice_format(const kept_notice &notice)
{
    char head[96];
    (void)std::snprintf(head, sizeof head, "%s %08x.%08x %u ", notice.time.c_str(), notice.source.node,
                        notice.source.sap, notice.opcode);
    std::string line = head;
    for (const std::uint8_t byte : notice.payload) {
        line += HEXADECIMAL[byte >> 4];
        line += HEXADECIMAL[byte & 0x0f];
    }
    return notice.payload.empty() ? line + "-" : line;
}

std::optional<kept_notice> kept_notice_parse(std::string_view line)
{
    kept_notice notice;
    notice.time = take_field(line);
    if (!is_time(notice.time) || !parse_address(take_field(line), notice.source) ||
        !parse_number(take_field(line), notice.opcode, 10) || !parse_payload(line, notice.payload))
        return std::nullopt;
    return notice;
}

void kept_notice_keep(mts_address_t source, std::uint32_t opcode, const void *payload, std::size_t bytes) noexcept
{
    if (bytes > NOTICE_PAYLOAD_BYTES_MAX)
        return;
    best_effort([&] { // the caller's business is the message
        const auto *first = static_cast<const std::uint8_t *>(payload);
        append({utc_now_microseconds(), source, opcode, std::vector<std::uint8_t>(first, first + bytes)});
    });
}

std::vector<kept_notice> kept_notice_reader::take()
{
    std::vector<kept_notice> notices;
    if (!file_ && !follow(OLDER_FILE_NAME) && !follow(FILE_NAME))
        return notices;
    for (unsigned turn = 0; turn < TURNS_MAX; ++turn) {
        read_rest(notices);
        if (is_same_file(file_, FILE_NAME))
            break;
        read_rest(notices); // what came before it was turned over
        const bool is_older = is_same_file(file_, OLDER_FILE_NAME);
        if (!is_older && follow(OLDER_FILE_NAME))
            continue;
        if (!follow(FILE_NAME))
            break;
    }
    return notices;
}

bool kept_notice_reader::follow(const char *name)
{
    unique_fd file = open_regular(name, O_RDONLY);
    if (!file)
        return false;
    file_ = std::move(file);
    offset_ = 0;
    inside_line_ = false;
    return true;
}

void kept_notice_reader::read_rest(std::vector<kept_notice> &notices)
{
    const std::int64_t size = size_of(file_);
    if (size < offset_) { // somebody has emptied it
        offset_ = 0;
        inside_line_ = false;
    }
    // A file that has grown beyond what the transport writes is not read whole.
    if (size - offset_ > 2 * NOTICES_FILE_BYTES_MAX) {
        offset_ = size - 2 * NOTICES_FILE_BYTES_MAX;
        inside_line_ = true;
    }
    std::string piece(PIECE_BYTES, '\0');
    for (;;) {
        const ssize_t got = ::pread(file_.get(), piece.data(), piece.size(), offset_);
        if (got <= 0)
            return;
        std::string_view rest(piece.data(), static_cast<std::size_t>(got));
        for (std::size_t end = rest.find('\n'); end != std::string_view::npos; end = rest.find('\n')) {
            const auto notice = inside_line_ ? std::nullopt : kept_notice_parse(rest.substr(0, end));
            if (notice)
                notices.push_back(*notice);
            inside_line_ = false;
            rest.remove_prefix(end + 1);
        }
        const bool too_long = rest.size() == piece.size();
        inside_line_ = inside_line_ || too_long;
        const std::size_t taken = static_cast<std::size_t>(got) - (too_long ? 0 : rest.size());
        if (taken == 0)
            return; // the last line has no newline yet
        offset_ += static_cast<std::int64_t>(taken);
    }
}
