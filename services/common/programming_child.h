// The processes that the daemon of a card has forked to program: they finish their work when the daemon has ended,
// and whoever has to know whether one lives is told by the system.
//
// Below the folder of a slot:
//   locks/programming   a child keeps a record lock of the system on one byte of it until it ends
#pragma once

// Has this process be taken for such a child until it ends; called once. Without a place for the mark there is
// none.
void programming_child_mark() noexcept;

// Whether another process lives that is such a child of the slot's card. false also when that cannot be found out.
bool programming_child_lives(unsigned slot);
