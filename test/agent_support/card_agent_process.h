// The agent of a card of a test's chassis, in a process of its own.
#pragma once

#include <csignal>
#include <fcntl.h>
#include <functional>
#include <stdexcept>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "agent_loop.h"
#include "agent_messages.h"
#include "agent_requests.h"
#include "chassis_dir.h"
#include "endpoints.h"
#include "module_locks.h"
#include "mts_tools.h"

class card_agent_process
{
public:
    // Serves a message itself and returns true, or leaves it to the agent.
    using script = std::function<bool(std::int32_t handle, mts_message *message)>;

    card_agent_process(const std::string &chassis, unsigned slot, const script &first = {})
    {
        int ready[2];
        if (::pipe2(ready, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe");
        process_ = ::fork();
        if (process_ == 0) {
            (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
            serve_for_ever(chassis, slot, ready[1], first);
        }
        ::close(ready[1]);
        char byte = 0;
        const ssize_t got = ::read(ready[0], &byte, 1);
        ::close(ready[0]);
        if (got != 1)
            throw std::runtime_error("the agent did not come up");
    }
    ~card_agent_process()
    {
        (void)::kill(process_, SIGKILL);
        (void)::waitpid(process_, nullptr, 0);
    }
    card_agent_process(const card_agent_process &) = delete;
    card_agent_process &operator=(const card_agent_process &) = delete;

private:
    [[noreturn]] static void serve_for_ever(const std::string &chassis, unsigned slot, int ready,
                                            const script &first)
    {
        if (chassis_attach(chassis, slot) != 0)
            ::_exit(70);
        const std::int32_t handle =
            mts_bind(BIND_KIND, static_cast<std::int32_t>(AGENT_SAP), BIND_OPTIONS, "agent of a test");
        if (handle < 0)
            ::_exit(71);
        (void)!::write(ready, "r", 1);
        if (!first)
            serve_card(handle, inventory_kind::common);
        serve_by_script(handle, first);
    }

    [[noreturn]] static void serve_by_script(std::int32_t handle, const script &first)
    {
        start_module_locks(handle);
        for (;;) {
            const std::int64_t wait_us = module_locks()->wait_limit_us();
            mts_message_t *message = nullptr;
            const bool came = mts_recv_within(handle, &message, wait_us < 0 ? 1'000'000 : wait_us) == 0;
            module_locks()->tick();
            if (came && first(handle, message))
                (void)mts_drop(handle, message);
            else if (came)
                serve(handle, message);
        }
    }

    pid_t process_ = -1;
};
