// The processes that live in a card: found by the one thing that is the card's alone, its root, or by their parent.
#pragma once

// Kills every process whose root folder is the given one, and goes on until there is none left; a process is never
// mistaken for one of the card, whatever its number was before. The caller reaps those that are its children.
// false when some are still there after a few seconds.
bool kill_processes_of_root(int root_fd);

// Kills all children of this process, which adopts theirs (PR_SET_CHILD_SUBREAPER), and reaps them until none is
// left.
void kill_descendants();
