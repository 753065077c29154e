// What takes the required pauses out of the daemon of most tests: they take ten seconds a programming, and what a
// programming does is the same without. The linker's --wrap sends the daemon's sleep and mts_recv here; the shipped
// one is linked without this file.
//
// The daemon looks for its child's end a hundred times a second in place of once. A programming child waits as it
// does everywhere, half an hour for a module that does not report its end; with a number of milliseconds in the
// card's file /mnt/pss/child_receive_ms it waits that long in place of each second, also in a receive that is under
// way. As long as the card has the file /mnt/pss/pauses, the programs of that card sleep as long as they should.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <unistd.h>

#include "mts.h"
#include "mts_tools.h"
#include "without_pauses.h"

namespace
{

using namespace std::chrono;

constexpr std::uint32_t WAIT_WHILE_PROGRAMMING_S = 1; // of the daemon, and of the child for each of its time-outs
constexpr milliseconds LOOK{10};

const pid_t daemon_process = ::getpid(); // its children are forked later and start no program

milliseconds child_receive_wait()
{
    std::FILE *file = std::fopen(CHILD_RECEIVE_MS, "re");
    if (file == nullptr)
        return seconds(WAIT_WHILE_PROGRAMMING_S);
    int count = 0;
    if (std::fscanf(file, "%d", &count) != 1) // NOLINT(cert-err34-c): a test's own number
        count = 0;
    (void)std::fclose(file);
    return milliseconds(count);
}

void wait_for_message(std::int32_t handle)
{
    const bool is_daemon = ::getpid() == daemon_process;
    pollfd arrival = {mts_descriptor(handle), POLLIN, 0};
    const auto begin = steady_clock::now();
    for (;;) {
        const milliseconds left =
            (is_daemon ? LOOK : child_receive_wait()) - duration_cast<milliseconds>(steady_clock::now() - begin);
        if (left <= milliseconds::zero() ||
            ::poll(&arrival, 1, static_cast<int>(std::min(left, LOOK).count())) != 0)
            return;
    }
}

} // namespace

extern "C" {

unsigned __real_sleep(unsigned pause_s);

unsigned __wrap_sleep(unsigned pause_s)
{
    return ::access(PAUSES, F_OK) == 0 ? __real_sleep(pause_s) : 0;
}

int32_t __real_mts_recv(int32_t handle, mts_message_t **message_out, const uint32_t options[10]);

int32_t __wrap_mts_recv(int32_t handle, mts_message_t **message_out, const uint32_t options[10])
{
    if (options[MTS_RECV_OPTION_WAIT_S] != WAIT_WHILE_PROGRAMMING_S)
        return __real_mts_recv(handle, message_out, options);
    wait_for_message(handle);
    uint32_t at_once[MTS_RECV_OPTION_WORDS];
    std::memcpy(at_once, options, sizeof at_once);
    at_once[MTS_RECV_OPTION_WAIT_S] = 0;
    return __real_mts_recv(handle, message_out, at_once);
}
}
