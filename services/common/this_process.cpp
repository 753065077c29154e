#include "this_process.h"

#include <pthread.h>
#include <unistd.h>

namespace
{

pid_t known = 0;

} // namespace

pid_t this_process()
{
    static const int watches_fork = ::pthread_atfork(nullptr, nullptr, [] { known = 0; });
    if (watches_fork != 0)
        return ::getpid();
    if (known == 0)
        known = ::getpid();
    return known;
}
