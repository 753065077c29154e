// What a datagram driver is: a record of operations on one kind of network between cards. All of services/messages
// knows the network through it only; a new kind of network is a folder in drivers/ with one such record.
//
// A datagram is a frame: a header (mts_frame.h), which is delivered as it was given, and up to
// MTS_MAX_PAYLOAD_BYTES of payload, which arrive whole or not at all; how large payloads travel is the driver's
// business. Datagrams from one port to one address arrive in the order in which they were sent, at most once.
//
// Concurrency: a process uses its ports from one thread, and a port belongs to the process that bound it. In a
// forked child nothing but abandon may be called with a port of its parent. Every descriptor is close-on-exec.
//
// Operations that return bool or a pointer report a failure by false or null with errno. Nothing is thrown out of
// an operation but std::bad_alloc.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "mts_frame.h"

struct datagram_port; // a bound address; what it points to is a type of the driver's own, under a name of its own

// Which process a datagram went to: tells it from a later one that has taken its address. The words are the
// driver's.
struct datagram_peer {
    std::array<std::uint64_t, 3> word{};
    std::int64_t bound_at_s = 0; // when it took the address, seconds since 1970 by the system's clock; 0: not known

    bool operator==(const datagram_peer &) const = default;
};

struct datagram_driver {
    const char *name; // of the driver, for people

    // Takes an address of a node.
    //   sap  service access point, or -1 for one of the driver's choice, at least DATAGRAM_FIRST_CHOSEN_SAP, that
    //        nobody has and that nobody has had a short while ago: messages to its last owner may be under way
    // Null with errno: EADDRINUSE when a living process has the address. That of a dead one is taken over.
    datagram_port *(*bind)(std::uint32_t node, std::int32_t sap);

    // Gives the address back. What was received stays valid. Never fails.
    void (*unbind)(datagram_port *port);

    // In a forked child: closes what it has inherited of a port of its parent, who goes on using it; and the
    // address is free when the parent is dead, not only when the child is. Never fails, calls nothing but the
    // system.
    void (*abandon)(datagram_port *port);

    mts_address_t (*address)(const datagram_port *port);

    // A descriptor that becomes readable when a datagram arrives; it stays the driver's.
    int (*descriptor)(const datagram_port *port);

    // Waits until a datagram comes, at most wait_us microseconds; 0 or less: takes what is there.
    // The message, from a sender who may send to this process, with a header that mts_frame_header_is_sound. Its
    // came_us tells for how long it lay in the queue; a driver that does not know leaves the moment of this call.
    // Null with errno:
    //   EAGAIN   none came in time
    //   EBADMSG  what came was dropped: another user's, cut, no frame; the rest of the wait is the caller's
    //   EINTR    a signal ended the wait
    //   else     that of the system call that failed
    mts_held_message (*receive)(datagram_port *port, std::int64_t wait_us);

    // Sends a frame; all of the header but place is the caller's. Waits for room in the receiver's queue: with a
    // request at most 2 s, with an answer 0.1 s, and with all that is no request 1 s in sum of waits in vain, of
    // which a tenth of the time that passes is given back; not again for a receiver that has kept the last message
    // waiting in vain until it takes one.
    //   peer_out  who it went to; may be null; set on success only
    // false with errno: ECONNREFUSED when nobody has the address, MTS_ERRNO_TIMED_OUT when the queue stayed full,
    // EMSGSIZE when the payload is larger than MTS_MAX_PAYLOAD_BYTES.
    bool (*send)(datagram_port *port, mts_address_t to, const mts_frame_header &header, const mts_payload &payload,
                 datagram_peer *peer_out);

    // Whether the process that a datagram went to still lives and has the address. Does not wait for it.
    bool (*is_there)(datagram_port *port, mts_address_t address, const datagram_peer &peer);

    // Whether a living process has the address. Without a port, for those who only ask.
    //   peer_out  which process; may be null; set on success only
    bool (*is_bound)(mts_address_t address, datagram_peer *peer_out);

    // The nodes on which living processes have a service access point, ascending. Without a port. Empty also when
    // that cannot be found out.
    std::vector<std::uint32_t> (*nodes_with)(std::uint32_t sap);

    // Has frames of an opcode that are sent to listeners delivered to this port, too, until it is given back. Twice
    // is as good as once.
    bool (*listen)(datagram_port *port, std::uint32_t opcode);

    // Sends a frame to all ports of all cards that listen for its opcode; each gets it or not by itself. true also
    // when there is none.
    bool (*send_to_listeners)(datagram_port *port, const mts_frame_header &header, const mts_payload &payload);
};

constexpr std::uint32_t DATAGRAM_FIRST_CHOSEN_SAP = 0x10000;

// The driver that this program sends and receives with; which one that is, the build says (drivers/CMakeLists.txt).
extern const datagram_driver *const card_datagram_driver;
