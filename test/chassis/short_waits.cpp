// What makes the daemon of the tests' own build wait shorter: a programming child waits half an hour for a module
// that does not report its end, and a test cannot. The linker's --wrap sends the daemon's mts_recv here.
//
// With a number of milliseconds in the card's file /mnt/pss/child_receive_ms a receive of a programming child waits
// that long in place of each second. The daemon itself, and the child as long as there is no such file, wait as
// they do everywhere.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <unistd.h>

#include "chassis_transport.h"
#include "mts.h"

namespace
{

constexpr const char *WAIT_FILE = "/mnt/pss/child_receive_ms";
constexpr int AS_LONG_AS_EVER = -1;

const pid_t daemon_process = ::getpid(); // its children are forked later and start no program

int short_wait_ms()
{
    if (::getpid() == daemon_process)
        return AS_LONG_AS_EVER;
    std::FILE *file = std::fopen(WAIT_FILE, "re");
    if (file == nullptr)
        return AS_LONG_AS_EVER;
    int milliseconds = AS_LONG_AS_EVER;
    if (std::fscanf(file, "%d", &milliseconds) != 1) // NOLINT(cert-err34-c): a test's own number
        milliseconds = AS_LONG_AS_EVER;
    (void)std::fclose(file);
    return milliseconds;
}

} // namespace

extern "C" {

int32_t __real_mts_recv(int32_t handle, mts_message_t **message_out, const uint32_t options[10]);

int32_t __wrap_mts_recv(int32_t handle, mts_message_t **message_out, const uint32_t options[10])
{
    const int wait_ms = short_wait_ms();
    if (wait_ms == AS_LONG_AS_EVER)
        return __real_mts_recv(handle, message_out, options);
    uint32_t at_once[MTS_RECV_OPTION_WORDS];
    std::memcpy(at_once, options, sizeof at_once);
    at_once[MTS_RECV_OPTION_WAIT_S] = 0;
    const int32_t result = __real_mts_recv(handle, message_out, at_once);
    if (result == 0 || errno != MTS_ERRNO_TIMED_OUT)
        return result;
    pollfd arrival = {chassis_mts_descriptor(handle), POLLIN, 0};
    (void)::poll(&arrival, 1, wait_ms * static_cast<int>(options[MTS_RECV_OPTION_WAIT_S]));
    return __real_mts_recv(handle, message_out, at_once);
}
}
