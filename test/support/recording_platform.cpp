#include "recording_platform.h"
#include "rest_of.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <sys/mman.h>
#include <unistd.h>

extern "C" ssize_t __real_write(int fd, const void *data, std::size_t length);

recording_platform *current_platform;

namespace
{

constexpr std::array<const char *, 7> daemon_folders = {"/bootflash", "/mnt/pss", "/vesk/bin",      "/var/tmp",
                                                        "/tmp",       "/etc",     "/mnt/bootloader"};

std::string made_root()
{
    std::string name = (std::filesystem::temp_directory_path() / "bios_unit.XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr)
        throw std::runtime_error("cannot make a test folder: " + name);
    for (const char *folder : daemon_folders)
        std::filesystem::create_directories(name + folder);
    return name;
}

bool is_call_of(const std::string &line, std::string_view name)
{
    const std::string_view mark = "child: ";
    const std::string_view text =
        line.compare(0, mark.size(), mark) == 0 ? std::string_view(line).substr(mark.size()) : line;
    return text.size() > name.size() && text.substr(0, name.size()) == name && text[name.size()] == '(';
}

} // namespace

recording_platform::recording_platform() : record_fd_(::memfd_create("record", MFD_CLOEXEC)), root_(made_root())
{
    if (!record_fd_ || ::fcntl(record_fd_.get(), F_SETFL, O_APPEND) != 0)
        throw std::runtime_error("cannot make the record");
    every_result("sdwrap_process_msg", {1, 0});
    every_result("sysmgr_cli_supstate_get", {1, 0});
}

recording_platform::~recording_platform()
{
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
}

bool recording_platform::has_result(const std::string &call) const
{
    const auto queue = queued_.find(call);
    return (queue != queued_.end() && !queue->second.empty()) || standing_.count(call) != 0;
}

void recording_platform::when(const std::string &line_start, std::function<void()> effect)
{
    effects_.emplace_back(line_start, std::move(effect));
}

bool recording_platform::allocation_fails(std::size_t byte_count)
{
    if (failing_allocations_.empty())
        return false;
    const auto found = failing_allocations_.find(byte_count);
    if (found == failing_allocations_.end())
        return false;
    failing_allocations_.erase(found);
    return true;
}

void recording_platform::insert_module(std::uint32_t module, std::uint8_t kind, std::uint16_t card_id)
{
    modules[module - 1].kind = kind;
    modules[module - 1].card_id = card_id;
}

mts_message_t *recording_platform::message(std::uint32_t opcode, const bytes &payload, mts_address_t source)
{
    auto made = std::make_unique<mts_message_t>(mts_message_t{++message_count_, opcode, source, payload});
    if (made->payload.size() < MTS_READABLE_PAYLOAD_BYTES)
        made->payload.resize(MTS_READABLE_PAYLOAD_BYTES);
    messages_.push_back(std::move(made));
    return messages_.back().get();
}

void recording_platform::deliver(std::uint32_t opcode, const bytes &payload, mts_address_t source)
{
    receive_steps_.push_back({message(opcode, payload, source), 0, std::nullopt});
}

void recording_platform::receive_fails(int error, int times)
{
    receive_steps_.insert(receive_steps_.end(), static_cast<std::size_t>(times),
                          receive_step{nullptr, error, std::nullopt});
}

void recording_platform::child_ends(pid_t pid, int status)
{
    receive_steps_.back().ended = ended_process{pid, status};
}

bool recording_platform::receive(mts_message_t **message_out)
{
    if (receive_steps_.empty()) {
        if (end_of_script)
            end_of_script();
        std::fprintf(stderr, "mts_recv was called after the end of the test's script\n");
        std::abort();
    }
    const receive_step step = receive_steps_.front();
    receive_steps_.pop_front();
    ended_process_ = step.ended;
    if (step.message == nullptr) {
        errno = step.error;
        return false;
    }
    *message_out = step.message;
    note("received(#" + std::to_string(step.message->number) + ")");
    return true;
}

void recording_platform::dropped(mts_message_t *message)
{
    const auto found = std::find_if(messages_.begin(), messages_.end(),
                                    [message](const auto &owned) { return owned.get() == message; });
    if (found == messages_.end()) {
        note("dropped(a message that is not there)");
        return;
    }
    note("dropped(#" + std::to_string(message->number) + ")");
    messages_.erase(found);
}

std::string recording_platform::message_balance() const
{
    std::map<std::string, int> uses;
    for (const std::string &line : story({"received"}))
        uses[line.substr(line.find('('))] += 1;
    for (const std::string &line : story({"dropped"}))
        uses[line.substr(line.find('('))] -= 1;
    std::string wrong;
    for (const auto &[message, difference] : uses)
        if (difference != 0)
            wrong += message + (difference > 0 ? " was received and not dropped; " : " was dropped too often; ");
    return wrong;
}

scripted_result recording_platform::called(const std::string &name, const std::string &arguments,
                                           scripted_result otherwise)
{
    const int caller_errno = errno;
    const std::string line = name + "(" + arguments + ")";
    note(line);
    for (const auto &[line_start, effect] : effects_)
        if (line.compare(0, line_start.size(), line_start) == 0)
            effect();

    scripted_result result = otherwise;
    if (auto &queue = queued_[name]; !queue.empty()) {
        result = queue.front();
        queue.pop_front();
    } else if (const auto standing = standing_.find(name); standing != standing_.end()) {
        result = standing->second;
    }
    errno = result.error != 0 ? result.error : caller_errno;
    return result;
}

void recording_platform::note(const std::string &line)
{
    const std::string text = (in_programming_child ? "child: " : "") + escaped(line) + "\n";
    if (__real_write(record_fd_.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        std::abort();
}

lines recording_platform::record() const
{
    std::string text;
    std::array<char, 4096> piece;
    for (off_t position = 0;;) {
        const ssize_t length = ::pread(record_fd_.get(), piece.data(), piece.size(), position);
        if (length <= 0)
            break;
        text.append(piece.data(), static_cast<std::size_t>(length));
        position += length;
    }
    lines result;
    for (std::size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
        result.push_back(text.substr(start, end - start));
    return result;
}

lines recording_platform::story(std::initializer_list<std::string_view> names) const
{
    lines chosen = record();
    const auto is_other = [names](const std::string &line) {
        return std::none_of(names.begin(), names.end(),
                            [&line](std::string_view name) { return is_call_of(line, name); });
    };
    chosen.erase(std::remove_if(chosen.begin(), chosen.end(), is_other), chosen.end());
    return chosen;
}

lines recording_platform::logs() const
{
    lines messages = story({"log"});
    for (std::string &line : messages) {
        const std::size_t start = line.find('(') + 1;
        line = line.substr(start, line.size() - start - 1);
    }
    return messages;
}

bool recording_platform::logged(const std::string &message) const
{
    const lines messages = logs();
    return std::find(messages.begin(), messages.end(), message) != messages.end();
}

void recording_platform::write_file(const std::string &absolute, std::string_view content) const
{
    std::ofstream file(path(absolute), std::ios::binary);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    if (!file.flush())
        throw std::runtime_error("cannot write " + path(absolute));
}

std::optional<std::string> recording_platform::read_file(const std::string &absolute) const
{
    std::ifstream file(path(absolute), std::ios::binary);
    if (!file)
        return std::nullopt;
    return rest_of(file);
}

int recording_platform::progress_area_use(void *area) const
{
    auto *words = static_cast<std::uint32_t *>(area);
    if (area == nullptr || !std::all_of(words + 1, words + 16, [](std::uint32_t word) { return word == 0; }))
        return -1;
    return static_cast<int>(words[0]++);
}

std::string quoted(const char *text)
{
    return text == nullptr ? "null" : '"' + std::string(text) + '"';
}

std::string hexed(std::uint32_t number)
{
    std::array<char, 16> text;
    (void)std::snprintf(text.data(), text.size(), "0x%x", number);
    return text.data();
}

std::string dumped(const void *data, std::size_t length)
{
    static constexpr std::size_t longest_dump = 16384;
    static constexpr char digits[] = "0123456789abcdef";
    const auto *byte = static_cast<const std::uint8_t *>(data);
    const std::size_t shown = length > longest_dump ? 16 : length;
    std::string text = "[";
    for (std::size_t i = 0; i < shown; ++i) {
        if (i > 0 && i % 4 == 0)
            text += ' ';
        text += digits[byte[i] >> 4];
        text += digits[byte[i] & 0xf];
    }
    return text + (shown < length ? " and so on]" : "]");
}

std::string escaped(std::string_view text)
{
    std::string line;
    for (const char character : text) {
        if (character == '\n')
            line += "\\n";
        else
            line += character;
    }
    return line;
}

std::string joined(std::initializer_list<std::string> arguments)
{
    std::string text;
    for (const std::string &argument : arguments)
        text += (text.empty() ? "" : ", ") + argument;
    return text;
}
