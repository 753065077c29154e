// Work on a mapped file that another process may cut at any time: a page that is gone raises SIGBUS, which would
// end this process.
#pragma once

// Does the work; when it touches a page that is gone, it ends there, and false is returned.
//   work     leaves nothing behind where it is left: no destructor runs
//   context  handed to it
// A SIGBUS from elsewhere has the effect that it had before. For one thread; not within itself.
bool survives_lost_pages(void (*work)(void *context), void *context);
