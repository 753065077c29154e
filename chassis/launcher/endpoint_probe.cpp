#include "endpoint_probe.h"

#include <cstdio>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "card_files.h"
#include "chassis_dir.h"

namespace
{

// A socket connected to an endpoint of the slot's node; none when nobody has it.
unique_fd connect_to_endpoint(unsigned slot, std::uint32_t sap)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/mts/%08x.%08x", chassis_dir_fd(),
                  node_of_slot(slot), sap);
    unique_fd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket || ::connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        return {};
    return socket;
}

} // namespace

bool endpoint_probe::is_taken(unsigned slot, std::uint32_t sap)
{
    if (!socket_) {
        socket_ = connect_to_endpoint(slot, sap);
        if (socket_ && ::send(socket_.get(), "", 1, MSG_NOSIGNAL) != 1)
            socket_.reset(); // its queue is full; a later one may get in
        return false;
    }
    int waiting_bytes = 0;
    if (::ioctl(socket_.get(), SIOCOUTQ, &waiting_bytes) != 0) {
        socket_.reset();
        return false;
    }
    // Nothing waits either when the receiver has died with what it had not taken.
    return waiting_bytes == 0 && static_cast<bool>(connect_to_endpoint(slot, sap));
}
