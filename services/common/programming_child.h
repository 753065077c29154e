// The processes that the daemon of a card has forked to program: they finish their work when the daemon has ended,
// and whoever has to know whether one lives is told by the system.
//
// Below the folder of a slot:
//   locks/programming   lines of 11 bytes with the ids of such processes, as they see themselves; a child keeps a
//                       record lock of the system on the first byte of its line until it ends
#pragma once

#include <cstdint>
#include <optional>

// Has this process be taken for such a child until it ends; called once. Without a place for the mark there is
// none.
void programming_child_mark() noexcept;

// Whether another process lives that is such a child of the slot's card. false also when that cannot be found out.
bool programming_child_lives(unsigned slot);

// Its process id, as it sees itself; 0: not known. None when none lives.
std::optional<std::uint32_t> programming_child_pid(unsigned slot);
