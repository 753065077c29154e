#include "processor.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace
{

[[noreturn]] void fail(pid_t process)
{
    throw std::runtime_error("processor of process " + std::to_string(process) + ": " + std::strerror(errno));
}

cpu_set_t processors_of(pid_t process)
{
    cpu_set_t processors;
    CPU_ZERO(&processors);
    if (::sched_getaffinity(process, sizeof processors, &processors) != 0)
        fail(process);
    return processors;
}

// The first one has more interrupts to serve.
cpu_set_t last_of(const cpu_set_t &processors)
{
    cpu_set_t last;
    CPU_ZERO(&last);
    for (unsigned number = CPU_SETSIZE; number-- > 0;) {
        if (CPU_ISSET(number, &processors)) {
            CPU_SET(number, &last);
            break;
        }
    }
    return last;
}

} // namespace

on_one_processor::on_one_processor(const std::vector<pid_t> &processes)
{
    const cpu_set_t one = last_of(processors_of(0));
    for (const pid_t process : processes) {
        before_.emplace_back(process, processors_of(process));
        if (::sched_setaffinity(process, sizeof one, &one) != 0)
            fail(process);
    }
}

on_one_processor::~on_one_processor()
{
    for (const auto &[process, processors] : before_)
        (void)::sched_setaffinity(process, sizeof processors, &processors);
}
