#include "guest_channel.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <utility>

#include "monotonic_clock.h"

namespace
{

// Ends whatever the agent had begun to read. Its next answer to a synchronization begins with it, too.
constexpr char SENTINEL = '\xff';

std::string reason_of_errno()
{
    return std::strerror(errno);
}

} // namespace

guest_channel::guest_channel(std::string socket_path, std::int64_t limit_us)
    : socket_path_(std::move(socket_path)),
      deadline_us_(monotonic_us() + limit_us)
{
}

bool guest_channel::time_is_up() const
{
    return monotonic_us() >= deadline_us_;
}

nlohmann::json guest_channel::call(const std::string &name, const nlohmann::json &arguments)
{
    if (!connection_) {
        connect();
        synchronize();
    }
    send({{"execute", name}, {"arguments", arguments}});
    const std::string line = receive_line();
    const nlohmann::json answer = nlohmann::json::parse(line, nullptr, false);
    if (answer.is_object() && answer.contains("return"))
        return answer["return"];
    if (answer.is_object() && answer.contains("error"))
        throw guest_error(name + ": " + answer["error"].value("desc", "failed"));
    throw guest_error(name + ": the answer is not understood: " + line);
}

void guest_channel::connect()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socket_path_.size() >= sizeof address.sun_path)
        throw guest_error(socket_path_ + ": " + std::strerror(ENAMETOOLONG));
    socket_path_.copy(address.sun_path, sizeof address.sun_path - 1);
    received_.clear();
    connection_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!connection_ ||
        ::connect(connection_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        const std::string reason = reason_of_errno();
        release();
        throw guest_error(socket_path_ + ": " + reason);
    }
}

// What is left of an earlier connection, requests as well as answers, is passed over. The agent calls the sentinel
// an error, before it answers.
void guest_channel::synchronize()
{
    const std::int64_t id = monotonic_us();
    send({{"execute", "guest-sync-delimited"}, {"arguments", {{"id", id}}}}, std::string(1, SENTINEL));
    const std::string expected = SENTINEL + nlohmann::json{{"return", id}}.dump();
    const auto without_blanks = [](std::string line) {
        std::erase(line, ' ');
        return line;
    };
    while (without_blanks(receive_line()) != expected)
        ;
}

void guest_channel::send(const nlohmann::json &request, const std::string &before)
{
    const std::string text = before + request.dump() + '\n';
    for (std::size_t sent = 0; sent < text.size();) {
        wait_for(POLLOUT);
        const ssize_t count =
            ::send(connection_.get(), text.data() + sent, text.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count >= 0)
            sent += static_cast<std::size_t>(count);
        else if (errno != EAGAIN && errno != EINTR)
            throw guest_error(socket_path_ + ": " + reason_of_errno());
    }
}

std::string guest_channel::receive_line()
{
    std::size_t searched = 0;
    for (;;) {
        const std::size_t end = received_.find('\n', searched);
        if (end != std::string::npos) {
            std::string line = received_.substr(0, end);
            received_.erase(0, end + 1);
            return line;
        }
        searched = received_.size();
        wait_for(POLLIN);
        char bytes[65536];
        const ssize_t count = ::recv(connection_.get(), bytes, sizeof bytes, MSG_DONTWAIT);
        if (count > 0)
            received_.append(bytes, static_cast<std::size_t>(count));
        else if (count == 0)
            throw guest_error(socket_path_ + ": the machine has ended");
        else if (errno != EAGAIN && errno != EINTR)
            throw guest_error(socket_path_ + ": " + reason_of_errno());
    }
}

void guest_channel::wait_for(short events) const
{
    const std::int64_t left_us = deadline_us_ - monotonic_us();
    pollfd socket = {.fd = connection_.get(), .events = events, .revents = 0};
    const int ready =
        left_us <= 0 ? 0 : ::poll(&socket, 1, static_cast<int>(std::min<std::int64_t>(left_us / 1000 + 1, 60'000)));
    if (ready == 0 && time_is_up())
        throw guest_error(socket_path_ + ": the machine does not answer");
}
