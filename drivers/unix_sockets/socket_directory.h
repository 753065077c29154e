// The directory "mts" of a chassis: one socket per endpoint and one marker per listener.
//
// A card has a root of its own, from which the directory has no path, and a socket address is a path: so bind and
// connect step into the directory for the length of the call. The processes of the chassis are single-threaded;
// nobody sees the working directory move.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "datagram_driver.h"
#include "unique_fd.h"

// An endpoint that listens for an opcode.
struct socket_listener {
    std::uint32_t opcode;
    mts_address_t address;
};

// Opens the directory of the chassis that this process belongs to, and makes it when it is missing.
// No descriptor and errno on failure.
unique_fd socket_directory_open();

// Keeps other processes from binding and from removing dead endpoints while the result lives; waits for them.
unique_fd socket_directory_lock(int directory);

// Binds a socket. REQUIRES the directory's lock. The file of a dead process is replaced.
// 0, or -1 with errno: EADDRINUSE when a living process has the address.
int socket_directory_bind(int directory, int socket, mts_address_t address);

// Binds a socket to a free address of the node. REQUIRES the directory's lock, which also keeps the number to go on
// from: a sap is not used again soon, since messages for its last owner may still be under way.
int socket_directory_bind_ephemeral(int directory, int lock, int socket, std::uint32_t node,
                                    std::uint32_t &sap_out);

// A socket connected to an endpoint, and who that is. No descriptor and errno: ECONNREFUSED when nobody has it.
unique_fd socket_directory_connect(int directory, mts_address_t address, datagram_peer &identity_out);

// Whether the endpoint of that identity is still there and its process lives.
bool socket_directory_is_alive(int directory, mts_address_t address, const datagram_peer &identity);

// The addresses that have a socket, in any order; of some the process may be dead.
std::vector<mts_address_t> socket_directory_addresses(int directory);

// Removes an endpoint's own socket.
void socket_directory_remove(int directory, mts_address_t address);

// Markers of listeners. Adding and removing: 0, or -1 with errno.
int listener_add(int directory, const socket_listener &listener);
void listener_remove(int directory, const socket_listener &listener);
std::vector<socket_listener> listeners(int directory);

// Removes the marker if nobody has its address.
void listener_remove_dead(int directory, const socket_listener &listener);
