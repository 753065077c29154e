// What takes the required pauses out of the daemon of these tests: a cut at each of some hundred places cannot wait
// for them. The linker's --wrap sends the daemon's sleep and mts_recv here; the shipped one is linked without it.
//
// The daemon looks for its child's end a hundred times a second in place of once. A programming child that waits
// for another module's report does not wait any more when its card has the file /mnt/pss/give_up: its 1801
// time-outs come at once. As long as there is none it waits as it does everywhere.
#include <cstring>
#include <poll.h>
#include <unistd.h>

#include "chassis_transport.h"
#include "mts.h"

namespace
{

constexpr const char *GIVE_UP_FILE = "/mnt/pss/give_up";
constexpr std::uint32_t WAIT_WHILE_PROGRAMMING_S = 1; // of the daemon, and of the child for each of its time-outs
constexpr int LOOK_MS = 10;
constexpr int LOOKS_A_SECOND = 100;

const pid_t daemon_process = ::getpid(); // its children are forked later and start no program

void wait_for_message(std::int32_t handle)
{
    pollfd arrival = {chassis_mts_descriptor(handle), POLLIN, 0};
    if (::getpid() == daemon_process) {
        (void)::poll(&arrival, 1, LOOK_MS);
        return;
    }
    for (int look = 0; look < LOOKS_A_SECOND && ::access(GIVE_UP_FILE, F_OK) != 0; ++look) {
        if (::poll(&arrival, 1, LOOK_MS) != 0)
            return;
    }
}

} // namespace

extern "C" {

unsigned __wrap_sleep(unsigned)
{
    return 0;
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
