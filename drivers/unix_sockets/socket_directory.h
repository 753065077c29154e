// The directory "mts" of a chassis: one socket per endpoint and one marker per listener.
//
// A card has a root of its own, from which the directory has no path, and a socket address is a path: so bind and
// connect step into the directory for the length of the call. The processes of the chassis are single-threaded;
// nobody sees the working directory move.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "mts.h"
#include "unique_fd.h"

constexpr std::uint32_t MTS_FIRST_EPHEMERAL_SAP = 0x10000; // saps of the transport's choice begin here

// Tells a socket from a later one of the same name: inode numbers alone are used again.
struct mts_socket_identity {
    std::uint64_t inode = 0;
    std::int64_t changed_s = 0;
    std::int64_t changed_ns = 0;

    bool operator==(const mts_socket_identity &) const = default;
};

// An endpoint that listens for an opcode.
struct mts_listener {
    std::uint32_t opcode;
    mts_address_t address;
};

// Opens the directory of the chassis that this process belongs to, and makes it when it is missing.
// No descriptor and errno on failure.
unique_fd mts_directory_open();

// Keeps other processes from binding and from removing dead endpoints while the result lives; waits for them.
unique_fd mts_directory_lock(int directory);

// Binds a socket. REQUIRES the directory's lock. The file of a dead process is replaced.
// 0, or -1 with errno: EADDRINUSE when a living process has the address.
int mts_directory_bind(int directory, int socket, mts_address_t address);

// Binds a socket to a free address of the node. REQUIRES the directory's lock, which also keeps the number to go on
// from: a sap is not used again soon, since messages for its last owner may still be under way.
int mts_directory_bind_ephemeral(int directory, int lock, int socket, std::uint32_t node, std::uint32_t &sap_out);

// A socket connected to an endpoint, and who that is. No descriptor and errno: ECONNREFUSED when nobody has it.
unique_fd mts_directory_connect(int directory, mts_address_t address, mts_socket_identity &identity_out);

// Whether the endpoint of that identity is still there and its process lives.
bool mts_directory_is_alive(int directory, mts_address_t address, const mts_socket_identity &identity);

// Removes an endpoint's own socket.
void mts_directory_remove(int directory, mts_address_t address);

// Markers of listeners. Adding and removing: 0, or -1 with errno.
int mts_listener_add(int directory, const mts_listener &listener);
void mts_listener_remove(int directory, const mts_listener &listener);
std::vector<mts_listener> mts_listeners(int directory);

// Removes the marker if nobody has its address.
void mts_listener_remove_dead(int directory, const mts_listener &listener);
