#include "mts_request_id.h"

#include <sys/random.h>

#include "monotonic_clock.h"
#include "this_process.h"

std::uint64_t mts_next_request_id()
{
    static std::uint64_t last = 0;
    static pid_t process = 0;
    if (process != this_process()) { // a forked child must not go on with its parent's numbers
        process = this_process();
        if (::getrandom(&last, sizeof last, 0) != sizeof last)
            last = static_cast<std::uint64_t>(monotonic_us()) << 20 | static_cast<std::uint64_t>(process);
    }
    return ++last;
}
