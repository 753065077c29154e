// How a card gets its private root.
//
//   mount  namespaces for mounts and processes, made by root
//   user   the same inside a user namespace, in which an ordinary user is root
//   plain  a change of root over a tree of copies, for root in a container without the right to mount
//
// With mount and user the card sees the programs of this machine; its processes, its mounts and what is left of
// either vanish together with it. With plain it has copies, no /proc, and this machine's process numbers.
#pragma once

#include <optional>
#include <string>

enum class isolation { automatic, mount, user, plain };

std::string isolation_name(isolation way);
std::optional<isolation> parse_isolation(const std::string &name);

inline bool has_namespaces(isolation way)
{
    return way == isolation::mount || way == isolation::user;
}

// The first of mount, user and plain that works for this process; each is tried in a child of its own.
// Throws launcher_error when none does.
isolation choose_isolation();

// Moves the calling process, which has to be single-threaded, into namespaces of its own for users (way user) and
// mounts; a mount made afterwards is seen by this process and its children only. Nothing to do for plain.
// Throws launcher_error.
void enter_isolation(isolation way);

// fork, for a child that with namespaces is the first process of a process namespace. -1 with errno on failure.
int fork_into_isolation(isolation way);
