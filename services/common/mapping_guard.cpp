#include "mapping_guard.h"

#include <csetjmp>
#include <csignal>

namespace
{

sigjmp_buf way_out;
volatile std::sig_atomic_t is_guarding = 0;
struct sigaction before;

void on_bus_error(int)
{
    if (is_guarding != 0)
        siglongjmp(way_out, 1);
    (void)::sigaction(SIGBUS, &before, nullptr); // the access is made again, and has the effect that it had before
}

bool install()
{
    struct sigaction action = {};
    action.sa_handler = on_bus_error;
    action.sa_flags = SA_NODEFER; // it is left by a jump
    return ::sigaction(SIGBUS, &action, &before) == 0;
}

} // namespace

bool survives_lost_pages(void (*work)(void *context), void *context)
{
    static const bool installed = install();
    if (installed && sigsetjmp(way_out, 0) != 0) {
        is_guarding = 0;
        return false;
    }
    is_guarding = 1;
    work(context);
    is_guarding = 0;
    return true;
}
