#include "topology.h"

#include <cerrno>
#include <cstring>
#include <poll.h>

#include "monotonic_clock.h"

namespace
{

constexpr std::int64_t ANSWER_US = 2 * MICROSECONDS; // the service is in this card's kernel

// A question's number, as it stands in the handle that the service gives back with each event.
struct question {
    std::uint32_t round = 0;
    std::uint32_t number = 0;
};

class topology_service
{
public:
    std::optional<std::vector<std::vector<tipc_publication>>> find(std::span<const tipc_range> ranges);

private:
    bool connect();
    bool ask(const tipc_range &range, question which) const;
    bool take_events(std::vector<std::vector<tipc_publication>> &found);
    bool wait(std::int64_t deadline) const;

    unique_fd connection_;
    pid_t owner_ = 0;
    std::uint32_t round_ = 0;
};

bool topology_service::connect()
{
    if (connection_ && owner_ == ::getpid())
        return true;
    owner_ = ::getpid();
    connection_.reset(::socket(AF_TIPC, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!connection_)
        return false;
    sockaddr_tipc address{};
    address.family = AF_TIPC;
    address.addrtype = TIPC_SERVICE_ADDR;
    address.addr.name.name = {TIPC_TOP_SRV, TIPC_TOP_SRV};
    if (::connect(connection_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0)
        return true;
    const int error = errno;
    connection_.reset();
    errno = error;
    return false;
}

// An event comes for each publication that is there, and one more that the question's time has passed, whenever.
bool topology_service::ask(const tipc_range &range, question which) const
{
    tipc_subscr subscription{};
    subscription.seq = {range.type, range.lower, range.upper};
    subscription.filter = TIPC_SUB_PORTS;
    static_assert(sizeof which == sizeof subscription.usr_handle);
    std::memcpy(subscription.usr_handle, &which, sizeof which);
    return ::send(connection_.get(), &subscription, sizeof subscription, MSG_NOSIGNAL) ==
           static_cast<ssize_t>(sizeof subscription);
}

bool topology_service::wait(std::int64_t deadline) const
{
    const std::int64_t left_ms = (deadline - monotonic_us() + 999) / 1000;
    pollfd events = {connection_.get(), POLLIN, 0};
    if (left_ms > 0 && ::poll(&events, 1, static_cast<int>(left_ms)) != 0)
        return true;
    errno = ETIMEDOUT;
    return false;
}

// Until the service tells of itself: that question was the last one, and it answers them in their order.
bool topology_service::take_events(std::vector<std::vector<tipc_publication>> &found)
{
    const std::int64_t deadline = monotonic_us() + ANSWER_US;
    for (;;) {
        tipc_event event;
        const ssize_t got = ::recv(connection_.get(), &event, sizeof event, MSG_DONTWAIT);
        if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
            if (!wait(deadline))
                return false;
            continue;
        }
        if (got != static_cast<ssize_t>(sizeof event)) {
            errno = got < 0 ? errno : ECONNRESET;
            return false;
        }
        question which;
        std::memcpy(&which, event.s.usr_handle, sizeof which);
        if (which.round != round_ || event.event != TIPC_PUBLISHED)
            continue;
        if (which.number >= found.size())
            return true;
        found[which.number].push_back({{event.port.node, event.port.ref}, event.found_lower});
    }
}

std::optional<std::vector<std::vector<tipc_publication>>> topology_service::find(std::span<const tipc_range> ranges)
{
    if (!connect())
        return std::nullopt;
    ++round_;
    std::vector<std::vector<tipc_publication>> found(ranges.size());
    bool is_asked = true;
    for (std::uint32_t number = 0; is_asked && number < ranges.size(); ++number)
        is_asked = ask(ranges[number], {round_, number});
    is_asked = is_asked &&
               ask({TIPC_TOP_SRV, TIPC_TOP_SRV, TIPC_TOP_SRV}, {round_, static_cast<std::uint32_t>(ranges.size())});
    if (is_asked && take_events(found))
        return found;
    const int error = errno;
    connection_.reset();
    errno = error;
    return std::nullopt;
}

topology_service &service()
{
    static topology_service of_this_process;
    return of_this_process;
}

} // namespace

std::optional<std::vector<std::vector<tipc_publication>>> find_publications(std::span<const tipc_range> ranges)
{
    return service().find(ranges);
}

bool is_node_up(std::uint32_t node)
{
    const tipc_range state[] = {{TIPC_NODE_STATE, node, node}};
    const auto found = find_publications(state);
    return !found || !found->front().empty();
}
