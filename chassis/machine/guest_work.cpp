#include "guest_work.h"

#include <algorithm>
#include <sodium.h>
#include <time.h>

#include "monotonic_clock.h"

namespace
{

using nlohmann::json;

constexpr std::size_t PIECE_BYTES = 256 * 1024;
// A short command's end is looked for often. Between two looks at a long one others may use the channel.
constexpr std::int64_t PATIENCE_US = MICROSECONDS;
constexpr std::int64_t SHORT_PAUSE_US = MICROSECONDS / 50;
constexpr std::int64_t LONG_PAUSE_US = MICROSECONDS / 5;

std::string to_base64(const std::string &bytes)
{
    std::string text(sodium_base64_ENCODED_LEN(bytes.size(), sodium_base64_VARIANT_ORIGINAL), '\0');
    (void)sodium_bin2base64(text.data(), text.size(), reinterpret_cast<const unsigned char *>(bytes.data()),
                            bytes.size(), sodium_base64_VARIANT_ORIGINAL);
    text.pop_back(); // its terminator
    return text;
}

std::string from_base64(const std::string &text)
{
    std::string bytes(text.size(), '\0');
    std::size_t length = 0;
    if (sodium_base642bin(reinterpret_cast<unsigned char *>(bytes.data()), bytes.size(), text.data(), text.size(),
                          nullptr, &length, nullptr, sodium_base64_VARIANT_ORIGINAL) != 0)
        throw guest_error("the machine's answer is not in base 64");
    bytes.resize(length);
    return bytes;
}

void pause_us(std::int64_t microseconds)
{
    const timespec pause = {.tv_sec = 0, .tv_nsec = static_cast<long>(microseconds * 1000)};
    (void)::nanosleep(&pause, nullptr);
}

json wait_for_end(guest_channel &channel, const json &process)
{
    const std::int64_t begin_us = monotonic_us();
    while (!channel.time_is_up()) {
        json state = channel.call("guest-exec-status", {{"pid", process}});
        if (state.value("exited", false))
            return state;
        const bool takes_long = monotonic_us() - begin_us > PATIENCE_US;
        if (takes_long)
            channel.release();
        pause_us(takes_long ? LONG_PAUSE_US : SHORT_PAUSE_US);
    }
    throw guest_error("the command has not ended in time; it goes on running");
}

// An open file of the machine, closed when it is left; one that cannot be closed goes with the agent.
class guest_file
{
public:
    guest_file(guest_channel &channel, const std::string &path, const char *mode)
        : channel_(channel),
          handle_(channel.call("guest-file-open", {{"path", path}, {"mode", mode}}))
    {
    }
    guest_file(const guest_file &) = delete;
    guest_file &operator=(const guest_file &) = delete;
    ~guest_file()
    {
        try {
            if (!handle_.is_null())
                close();
        } catch (const std::exception &) {
            // What failed first is what the caller hears of.
        }
    }

    void write(const std::string &piece)
    {
        const json written =
            channel_.call("guest-file-write", {{"handle", handle_}, {"buf-b64", to_base64(piece)}});
        if (written.value("count", std::size_t{0}) != piece.size())
            throw guest_error("the machine has written only a part of the file");
    }
    // Empty at the file's end.
    std::string read()
    {
        return from_base64(
            channel_.call("guest-file-read", {{"handle", handle_}, {"count", PIECE_BYTES}}).value("buf-b64", ""));
    }
    void close() { channel_.call("guest-file-close", {{"handle", std::exchange(handle_, nullptr)}}); }

private:
    guest_channel &channel_;
    json handle_;
};

} // namespace

guest_result run_in_guest(guest_channel &channel, const std::vector<std::string> &command, const std::string &input)
{
    json request = {{"path", command.at(0)},
                    {"arg", std::vector(command.begin() + 1, command.end())},
                    {"capture-output", true}};
    if (!input.empty())
        request["input-data"] = to_base64(input);
    const json started = channel.call("guest-exec", request);
    const json end = wait_for_end(channel, started.at("pid"));
    if (end.value("out-truncated", false) || end.value("err-truncated", false))
        throw guest_error("the command has written more than the machine's agent keeps");
    return {.status = end.contains("signal") ? 128 + end["signal"].get<int>() : end.value("exitcode", 0),
            .output = from_base64(end.value("out-data", "")),
            .errors = from_base64(end.value("err-data", ""))};
}

void put_guest_file(guest_channel &channel, const std::string &path, const std::string &contents)
{
    guest_file file(channel, path, "w");
    for (std::size_t done = 0; done < contents.size(); done += PIECE_BYTES)
        file.write(contents.substr(done, PIECE_BYTES));
    file.close();
}

std::string get_guest_file(guest_channel &channel, const std::string &path)
{
    guest_file file(channel, path, "r");
    std::string contents;
    for (std::string piece = file.read(); !piece.empty(); piece = file.read())
        contents += piece;
    file.close();
    return contents;
}
