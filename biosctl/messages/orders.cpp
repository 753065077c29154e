#include "orders.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <pwd.h>
#include <span>
#include <string_view>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include "agent_messages.h"
#include "agents.h"
#include "text_field.h"

namespace
{

template<class Record>
request_answer ask_about_orders(std::uint32_t node, std::uint32_t opcode, const Record &body)
{
    return ask_agent(node, opcode, {reinterpret_cast<const std::uint8_t *>(&body), sizeof body});
}

std::string own_user()
{
    const passwd *user = ::getpwuid(::getuid());
    return user != nullptr ? user->pw_name : std::to_string(::getuid());
}

std::string own_host()
{
    char name[HOST_NAME_MAX + 1] = {};
    return ::gethostname(name, sizeof name - 1) == 0 ? name : "";
}

agent_order_req_t encode(const wanted_programming &wanted)
{
    agent_order_req_t request{};
    request.instance = be32::of(wanted.instance);
    request.forced = be32::of(wanted.forced);
    request.image = wanted.image.record;
    store_text(request.from, wanted.image_name.c_str());
    store_text(request.user, own_user().c_str());
    store_text(request.host, own_host().c_str());
    request.is_copied = be32::of(wanted.is_copied ? 1 : 0);
    return request;
}

// id_out: of the order; 0 when there is none.
order_judgement send_order(const wanted_programming &wanted, const agent_order_req_t &request,
                           std::uint64_t &id_out)
{
    const request_answer answer = ask_about_orders(wanted.node, AGENT_OPC_ORDER_FLASH, request);
    if (!answer.answered)
        return {};
    if (answer.status != AGENT_OK)
        return {.status = answer.status};
    agent_order_taken_t taken{};
    if (answer.payload.size() != sizeof taken)
        return {};
    std::memcpy(&taken, answer.payload.data(), sizeof taken);
    id_out = taken.id.load();
    return {.status = AGENT_OK, .missing_bytes = taken.missing_bytes.load()};
}

[[noreturn]] void renew(std::uint32_t node, const agent_order_id_t &order, pid_t parent)
{
    (void)std::signal(SIGINT, SIG_IGN); // Ctrl-C is for the parent, which may go on
    (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
    try {
        while (::getppid() == parent) {
            (void)::sleep(FLASH_ORDER_RENEWAL_S);
            const request_answer answer = ask_about_orders(node, AGENT_OPC_RENEW_ORDER, order);
            leave_agents(); // it is killed, most likely while it sleeps
            if (answer.answered && answer.status == AGENT_ERR_NO_ORDER)
                break;
        }
    } catch (const std::exception &) {
        // No memory: the order ends for want of renewals.
    }
    ::_exit(0);
}

agent_order_id_t id_of(unsigned instance, std::uint64_t id)
{
    return {be32::of(instance), be64::of(id)};
}

} // namespace

placed_order::placed_order(std::uint32_t node, unsigned instance, std::uint64_t id)
    : node_(node),
      instance_(instance),
      id_(id)
{
    const pid_t parent = ::getpid();
    renewal_ = ::fork();
    if (renewal_ == 0)
        renew(node, id_of(instance, id), parent);
}

placed_order::placed_order(placed_order &&other) noexcept
    : node_(other.node_),
      instance_(other.instance_),
      id_(other.id_),
      renewal_(std::exchange(other.renewal_, -1))
{
}

placed_order::~placed_order()
{
    if (renewal_ <= 0)
        return;
    (void)::kill(renewal_, SIGKILL);
    while (::waitpid(renewal_, nullptr, 0) < 0 && errno == EINTR)
        ;
}

void placed_order::end(std::uint32_t result) const
{
    (void)ask_about_orders(node_, AGENT_OPC_END_ORDER, agent_order_end_t{id_of(instance_, id_), be32::of(result)});
}

std::optional<flash_order> placed_order::record() const
{
    auto found = ask_for_order(node_, instance_);
    return found && found->id == id_ ? found : std::nullopt;
}

order_judgement judge_order(const wanted_programming &wanted)
{
    agent_order_req_t request = encode(wanted);
    request.judge_only = be32::of(1);
    std::uint64_t id = 0;
    return send_order(wanted, request, id);
}

order_reply place_order(const wanted_programming &wanted)
{
    std::uint64_t id = 0;
    order_reply reply{.judgement = send_order(wanted, encode(wanted), id)};
    if (reply.judgement.is_good())
        reply.order.emplace(wanted.node, wanted.instance, id);
    return reply;
}

std::optional<flash_order> ask_for_order(std::uint32_t node, unsigned instance)
{
    const request_answer answer =
        ask_about_orders(node, AGENT_OPC_GET_ORDER, agent_flash_req_t{be32::of(instance)});
    if (!answer.answered || answer.status != AGENT_OK)
        return std::nullopt;
    return flash_order_parse({reinterpret_cast<const char *>(answer.payload.data()), answer.payload.size()});
}

std::optional<std::uint32_t> cancel_order(std::uint32_t node, unsigned instance)
{
    const request_answer answer =
        ask_about_orders(node, AGENT_OPC_CANCEL_ORDER, agent_flash_req_t{be32::of(instance)});
    return answer.answered ? std::optional(answer.status) : std::nullopt;
}
