#include "socket_directory.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "chassis_dir.h"
#include "inside_folder.h"

namespace
{

constexpr const char *DIRECTORY_NAME = "mts";
constexpr const char *LOCK_NAME = "lock";
constexpr mode_t SOCKET_MODE = 0600;
constexpr std::uint32_t LAST_EPHEMERAL_SAP = 0x7fffffff;
constexpr unsigned EPHEMERAL_SAP_TRIES = 4096;
constexpr unsigned CONNECT_TRIES = 8;
constexpr std::uint32_t EPHEMERAL_SAPS_PER_SWEEP = 64;
constexpr int SEND_BUFFER_BYTES = 256 << 10; // holds a few of the largest datagrams

struct close_directory {
    void operator()(DIR *open_directory) const { ::closedir(open_directory); }
};

std::string socket_name(mts_address_t address)
{
    char name[32];
    std::snprintf(name, sizeof name, "%08x.%08x", address.node, address.sap);
    return name;
}

std::string marker_name(const socket_listener &listener)
{
    char name[48];
    std::snprintf(name, sizeof name, "listen.%08x.%08x.%08x", listener.opcode, listener.address.node,
                  listener.address.sap);
    return name;
}

sockaddr_un socket_address(mts_address_t address)
{
    sockaddr_un result{};
    result.sun_family = AF_UNIX;
    socket_name(address).copy(result.sun_path, sizeof result.sun_path - 1);
    return result;
}

int bind_socket(int directory, int socket, mts_address_t address)
{
    // The file of a socket gets the mode that the socket has, whatever is open in this process's umask.
    if (::fchmod(socket, SOCKET_MODE) != 0)
        return -1;
    const sockaddr_un name = socket_address(address);
    return inside_folder(directory,
                         [&] { return ::bind(socket, reinterpret_cast<const sockaddr *>(&name), sizeof name); });
}

// ECONNREFUSED also when there is no file: for a sender that is the same.
unique_fd connect_socket(int directory, mts_address_t address)
{
    unique_fd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!socket)
        return socket;
    const sockaddr_un name = socket_address(address);
    const int result = inside_folder(
        directory, [&] { return ::connect(socket.get(), reinterpret_cast<const sockaddr *>(&name), sizeof name); });
    if (result == 0)
        return socket;
    if (errno == ENOENT)
        errno = ECONNREFUSED;
    return unique_fd();
}

bool is_dead(int directory, mts_address_t address)
{
    return !connect_socket(directory, address) && errno == ECONNREFUSED;
}

bool read_identity(int directory, mts_address_t address, datagram_peer &identity)
{
    struct stat facts;
    if (::fstatat(directory, socket_name(address).c_str(), &facts, AT_SYMLINK_NOFOLLOW) != 0)
        return false;
    // Inode numbers alone are used again.
    identity.word = {facts.st_ino, static_cast<std::uint64_t>(facts.st_ctim.tv_sec),
                     static_cast<std::uint64_t>(facts.st_ctim.tv_nsec)};
    identity.bound_at_s = facts.st_ctim.tv_sec;
    return true;
}

std::vector<std::string> names_in(int directory)
{
    std::vector<std::string> names;
    const int again = ::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (again < 0)
        return names;
    const std::unique_ptr<DIR, close_directory> open_directory(::fdopendir(again));
    if (!open_directory) {
        ::close(again);
        return names;
    }
    while (const dirent *entry = ::readdir(open_directory.get()))
        names.emplace_back(entry->d_name);
    return names;
}

bool parse_socket_name(const std::string &name, mts_address_t &address)
{
    int end = 0;
    return std::sscanf(name.c_str(), "%8x.%8x%n", &address.node, &address.sap, &end) == 2 &&
           name == socket_name(address);
}

bool parse_marker_name(const std::string &name, socket_listener &listener)
{
    return std::sscanf(name.c_str(), "listen.%8x.%8x.%8x", &listener.opcode, &listener.address.node,
                       &listener.address.sap) == 3 &&
           name == marker_name(listener);
}

// A process that was killed leaves its socket and its markers behind.
void remove_leftovers(int directory, mts_address_t dead)
{
    for (const socket_listener &listener : listeners(directory)) {
        if (listener.address.node == dead.node && listener.address.sap == dead.sap)
            listener_remove(directory, listener);
    }
    socket_directory_remove(directory, dead);
}

// Ephemeral addresses are not taken over by a successor: somebody has to clean up behind killed tools.
void sweep(int directory)
{
    for (const std::string &name : names_in(directory)) {
        mts_address_t address{};
        if (parse_socket_name(name, address) && address.sap >= DATAGRAM_FIRST_CHOSEN_SAP &&
            is_dead(directory, address))
            remove_leftovers(directory, address);
    }
}

std::uint32_t load_next_sap(int lock)
{
    char text[32] = {};
    if (::pread(lock, text, sizeof text - 1, 0) <= 0)
        return DATAGRAM_FIRST_CHOSEN_SAP;
    const unsigned long number = std::strtoul(text, nullptr, 10);
    if (number < DATAGRAM_FIRST_CHOSEN_SAP || number > LAST_EPHEMERAL_SAP)
        return DATAGRAM_FIRST_CHOSEN_SAP;
    return static_cast<std::uint32_t>(number);
}

// A lost number costs only a search from the start.
void store_next_sap(int lock, std::uint32_t sap)
{
    const std::string text = std::to_string(sap) + "\n";
    if (::ftruncate(lock, 0) == 0)
        (void)!::pwrite(lock, text.data(), text.size(), 0);
}

} // namespace

unique_fd socket_directory_open()
{
    const int chassis = chassis_dir_fd();
    if (chassis < 0)
        return unique_fd();
    if (::mkdirat(chassis, DIRECTORY_NAME, 0700) != 0 && errno != EEXIST)
        return unique_fd();
    return unique_fd(::openat(chassis, DIRECTORY_NAME, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

unique_fd socket_directory_lock(int directory)
{
    unique_fd lock(::openat(directory, LOCK_NAME, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    while (lock && ::flock(lock.get(), LOCK_EX) != 0) {
        if (errno != EINTR)
            return unique_fd();
    }
    return lock;
}

int socket_directory_bind(int directory, int socket, mts_address_t address)
{
    if (bind_socket(directory, socket, address) == 0)
        return 0;
    if (errno != EADDRINUSE)
        return -1;
    if (!is_dead(directory, address)) {
        errno = EADDRINUSE;
        return -1;
    }
    remove_leftovers(directory, address);
    return bind_socket(directory, socket, address);
}

int socket_directory_bind_ephemeral(int directory, int lock, int socket, std::uint32_t node, std::uint32_t &sap_out)
{
    std::uint32_t sap = load_next_sap(lock);
    for (unsigned attempt = 0; attempt < EPHEMERAL_SAP_TRIES; ++attempt) {
        const std::uint32_t candidate = sap;
        sap = candidate == LAST_EPHEMERAL_SAP ? DATAGRAM_FIRST_CHOSEN_SAP : candidate + 1;
        if (candidate % EPHEMERAL_SAPS_PER_SWEEP == 0)
            sweep(directory);
        if (socket_directory_bind(directory, socket, {node, candidate}) == 0) {
            store_next_sap(lock, sap);
            sap_out = candidate;
            return 0;
        }
        if (errno != EADDRINUSE)
            return -1;
    }
    return -1;
}

unique_fd socket_directory_connect(int directory, mts_address_t address, datagram_peer &identity_out)
{
    for (unsigned attempt = 0; attempt < CONNECT_TRIES; ++attempt) {
        datagram_peer before, after;
        const bool was_there = read_identity(directory, address, before);
        unique_fd socket = connect_socket(directory, address);
        if (!socket)
            return socket;
        // Bound anew in between: it is not known to which of the two the connection goes.
        if (!was_there || !read_identity(directory, address, after) || !(before == after))
            continue;
        (void)::setsockopt(socket.get(), SOL_SOCKET, SO_SNDBUF, &SEND_BUFFER_BYTES, sizeof SEND_BUFFER_BYTES);
        identity_out = after;
        return socket;
    }
    errno = ECONNREFUSED;
    return unique_fd();
}

bool socket_directory_is_alive(int directory, mts_address_t address, const datagram_peer &identity)
{
    datagram_peer now;
    if (!read_identity(directory, address, now) || !(now == identity))
        return false;
    return !is_dead(directory, address);
}

std::vector<mts_address_t> socket_directory_addresses(int directory)
{
    std::vector<mts_address_t> addresses;
    for (const std::string &name : names_in(directory)) {
        mts_address_t address{};
        if (parse_socket_name(name, address))
            addresses.push_back(address);
    }
    return addresses;
}

void socket_directory_remove(int directory, mts_address_t address)
{
    (void)::unlinkat(directory, socket_name(address).c_str(), 0);
}

int listener_add(int directory, const socket_listener &listener)
{
    const unique_fd marker(
        ::openat(directory, marker_name(listener).c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    return marker ? 0 : -1;
}

void listener_remove(int directory, const socket_listener &listener)
{
    (void)::unlinkat(directory, marker_name(listener).c_str(), 0);
}

std::vector<socket_listener> listeners(int directory)
{
    std::vector<socket_listener> listeners;
    for (const std::string &name : names_in(directory)) {
        socket_listener listener{};
        if (parse_marker_name(name, listener))
            listeners.push_back(listener);
    }
    return listeners;
}

void listener_remove_dead(int directory, const socket_listener &listener)
{
    const unique_fd lock = socket_directory_lock(directory);
    if (lock && is_dead(directory, listener.address))
        listener_remove(directory, listener);
}
