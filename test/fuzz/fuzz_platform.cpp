#include "fuzz_platform.h"

#include <cerrno>
#include <cstring>
#include <sanitizer/asan_interface.h>
#include <string_view>
#include <sys/mman.h>

namespace
{

// Words that the daemon's commands begin with.
constexpr std::string_view KNOWN_COMMANDS[] = {
    "/bin/cp ",
    "/bin/gunzip ",
    "/bin/mkdir -p ",
    "/bin/mount -o ro ",
    "/bin/mv ",
    "/bin/rm -rf ",
    "/bin/touch ",
    "/bin/umount ",
    "/usr/bin/md5sum ",
    "/vesk/sbin/init-system -b ",
    "/vesk/sbin/nbitool ",
    "/vesk/sbin/veskadd -x ",
    "pgrep ",
    "rm -rf ",
    "unlink ",
};
constexpr std::string_view SUDO = "sudo ";
constexpr char HARMLESS[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-+:@,=% ";
constexpr std::size_t COMMAND_BYTES = 256;

} // namespace

fuzz_platform *current_platform;

fuzz_platform::fuzz_platform(fuzz_input whole) : input(whole)
{
    const auto decisions = input.bytes(input.byte());
    decisions_.assign(decisions.begin(), decisions.end());
    opened_file = [](const char *, int) { return memory_file(""); };
}

fuzz_platform::~fuzz_platform()
{
    current_platform = nullptr;
}

void fuzz_platform::run(void (*code)(fuzz_platform &platform))
{
    current_platform = this;
    if (setjmp(end_) == 0) // the daemon's loop has no other end
        code(*this);
    current_platform = nullptr;
    if (!in_child)
        require(!has_current_, "every message is dropped");
}

void fuzz_platform::leave()
{
    std::longjmp(end_, 1);
}

unsigned fuzz_platform::decide(unsigned choices)
{
    return next_decision_ < decisions_.size() ? decisions_[next_decision_++] % choices : 0;
}

bool fuzz_platform::fails(int error)
{
    if (decide(8) != 7)
        return false;
    errno = error;
    return true;
}

bool fuzz_platform::receive(mts_message_t **message_out)
{
    require(!has_current_ || in_child, "a message is dropped before the next is received");
    lend_message({});
    if (!next_message || !next_message(message_)) {
        has_current_ = false;
        return false;
    }
    *message_out = &message_;
    return true;
}

void fuzz_platform::lend_message(mts_message message)
{
    message_ = std::move(message);
    if (message_.payload.size() < MTS_READABLE_PAYLOAD_BYTES)
        message_.payload.resize(MTS_READABLE_PAYLOAD_BYTES);
    message_.payload.shrink_to_fit();
    has_current_ = true;
}

void fuzz_platform::drop(mts_message_t *message)
{
    expect_current(message, "only a received message is dropped, and once");
    const bool settled = message_.answers + message_.rejections == 1;
    const bool may_be_open = in_child || message_.taken_by_debug || allocation_failed || leaving_for_card_id;
    require(settled || may_be_open, "a request is answered or rejected");
    has_current_ = false;
    message_.payload = {};
}

void fuzz_platform::expect_current(const mts_message_t *message, const char *promise) const
{
    require(has_current_ && message == &message_, promise);
}

void fuzz_platform::expect_command(const char *command) const
{
    std::string_view text = command;
    require(text.size() < COMMAND_BYTES, "a command fits its buffer");
    require(text.find_first_not_of(HARMLESS) == std::string_view::npos, "a command has harmless characters only");
    if (text.starts_with(SUDO))
        text.remove_prefix(SUDO.size());
    bool known = false;
    for (const std::string_view start : KNOWN_COMMANDS)
        known = known || text.starts_with(start);
    require(known, "a command is one of those that the daemon has");
}

void expect_accessible(const void *block, std::size_t length, const char *promise)
{
    require(length == 0 || __asan_region_is_poisoned(const_cast<void *>(block), length) == nullptr, promise);
}

unique_fd memory_file(std::string_view content)
{
    unique_fd file(::memfd_create("fuzz", MFD_CLOEXEC));
    require(static_cast<bool>(file) &&
                ::pwrite(file.get(), content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()),
            "a memory file can be made");
    return file;
}
