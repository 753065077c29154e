// The module lock (platform/modlock.h): a byte of the card's lock file, which keeps the other processes of this
// card out, and the agent of this card, which gets the lock from the agent of the module's card and gives it back
// when this process ends (agent_messages.h).
#include "modlock.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <set>
#include <unistd.h>

#include "agent_messages.h"
#include "bios_results.h"
#include "c_boundary.h"
#include "chassis_dir.h"
#include "endpoints.h"
#include "module_lock_file.h"
#include "module_lock_message.h"
#include "module_lock_record.h"
#include "monotonic_clock.h"
#include "mts_tools.h"
#include "this_process.h"
#include "utc_time.h"
#include "watched_file.h"

namespace
{

constexpr unsigned REQUEST_REASON_WORD = 3;
constexpr std::int64_t CALL_LIMIT_US = 900'000; // a call ends within a second
constexpr std::int64_t SEND_AGAIN_US =
    200'000; // on its way a message may be lost; an agent is started again as fast
constexpr std::int64_t KNOWN_FREE_US = MICROSECONDS;

struct client {
    module_lock_file file;
    std::int32_t endpoint = -1;
    std::uint64_t last_id = 0;
    pid_t process = 0;                          // whose locks are listed; a forked child has none
    std::map<std::uint16_t, std::uint32_t> own; // and the reason of each
    std::set<std::uint16_t>
        known_free; // nobody's when last asked for, and since then no process of this card took one
    std::int64_t known_free_until_us = 0;
};

client &this_client()
{
    static client *const the_client = new client; // never freed: the locks last as long as the process
    if (the_client->process != this_process()) {
        the_client->process = this_process();
        the_client->endpoint = -1; // its parent's; binding closes what is inherited
        the_client->own.clear();
        the_client->known_free.clear();
    }
    return *the_client;
}

bool is_open(client &client)
{
    return client.file.is_open() || client.file.open();
}

bool is_bound(client &client)
{
    if (client.endpoint < 0)
        client.endpoint = mts_bind(BIND_KIND, ANY_SAP, BIND_OPTIONS, "module locks");
    return client.endpoint >= 0;
}

// What the message says about the request of an id; none when it is about something else.
std::optional<std::uint32_t> answer_in(mts_message_t *message, std::uint64_t id, std::uint32_t agent_node)
{
    mts_address_t from{};
    if (mts_opc_get(message) != AGENT_OPC_LOCK_ANSWER || mts_saddr_get(message, &from) != 0 ||
        from.node != agent_node || from.sap != AGENT_SAP ||
        mts_payload_length(message) != sizeof(agent_lock_answer_t))
        return std::nullopt;
    agent_lock_answer_t answer;
    std::memcpy(&answer, mts_payload_get(message), sizeof answer);
    return answer.id.load() == id ? std::optional(answer.status.load()) : std::nullopt;
}

std::optional<std::uint32_t> wait_for_answer(const client &client, std::uint32_t agent_node, std::int64_t until_us)
{
    mts_message_t *message = nullptr;
    while (mts_recv_within(client.endpoint, &message, std::max<std::int64_t>(until_us - monotonic_us(), 0)) == 0) {
        const auto status = answer_in(message, client.last_id, agent_node);
        (void)mts_drop(client.endpoint, message);
        if (status)
            return status;
    }
    return std::nullopt;
}

// Has the card's agent do something, until end_us of monotonic_us. Its answer's status; none with errno when it
// gave none.
std::optional<std::uint32_t> ask_agent(client &client, std::uint32_t opcode, const void *body, std::uint32_t bytes,
                                       std::int64_t end_us)
{
    const std::uint32_t node = mts_node_of_slot(chassis_own_slot());
    int failure = MTS_ERRNO_TIMED_OUT;
    for (std::int64_t now_us = monotonic_us(); now_us < end_us; now_us = monotonic_us()) {
        const std::int64_t until_us = std::min(now_us + SEND_AGAIN_US, end_us);
        if (mts_send(client.endpoint, node, AGENT_SAP, opcode, body, bytes, 0, 0, 0) != 0)
            failure = errno;
        if (const auto status = wait_for_answer(client, node, until_us); status)
            return status;
    }
    errno = failure;
    return std::nullopt;
}

std::optional<std::uint32_t> ask_for_lock(client &client, const chassis_module_lock_holder &wanted,
                                          std::int64_t end_us)
{
    const agent_lock_msg_t body = {be64::of(++client.last_id), message_of(wanted)};
    return ask_agent(client, AGENT_OPC_LOCK, &body, sizeof body, end_us);
}

std::optional<std::uint32_t> ask_for_unlock(client &client, std::uint16_t node_id, std::int64_t end_us)
{
    const agent_lock_node_t body = {be64::of(++client.last_id), be32::of(node_id)};
    return ask_agent(client, AGENT_OPC_UNLOCK, &body, sizeof body, end_us);
}

int errno_of(std::uint32_t status, int held)
{
    switch (status) {
    case AGENT_ERR_LOCK_HELD:
        return held;
    case AGENT_ERR_LOCK_FREE:
        return ENOENT;
    case AGENT_ERR_LOCK_AGENT:
        return EHOSTUNREACH;
    default:
        return EIO;
    }
}

std::int32_t failed(int error)
{
    errno = error;
    return -1;
}

// The byte is taken: has the agents agree. 0, or the errno.
int lock_at_agent(client &client, std::uint16_t node_id, std::uint32_t owner, std::uint32_t reason,
                  std::int64_t end_us)
{
    const chassis_module_lock_holder wanted = {
        node_id, chassis_own_slot(), static_cast<std::uint32_t>(this_process()), owner, reason, utc_now()};
    const auto status = ask_for_lock(client, wanted, end_us);
    if (!status)
        return errno;
    return *status == AGENT_OK ? 0 : errno_of(*status, EBUSY);
}

// Takes a lock that is not this process's. 0, or the errno.
int take_new(client &client, std::uint16_t node_id, std::uint32_t owner, std::uint32_t reason, std::int64_t end_us)
{
    const auto entry = client.own.emplace(node_id, reason).first; // before the lock: memory may run out
    if (client.file.take(node_id) != 0) {
        client.own.erase(entry);
        return errno;
    }
    const int error = c_boundary(ENOMEM, [&] { return lock_at_agent(client, node_id, owner, reason, end_us); });
    if (error == 0)
        return 0;
    (void)client.file.give_back(node_id); // the agent notices, too, when it could not answer in time
    client.own.erase(entry);
    return error;
}

// Frees a lock of this process. Without an answer of the agent it is free as soon as that sees the byte.
void free_own(client &client, std::uint16_t node_id, std::int64_t end_us)
{
    client.own.erase(node_id);
    (void)client.file.give_back(node_id);
    (void)ask_for_unlock(client, node_id, end_us);
}

// A programming takes several locks, and without one of them it does not take place: the daemon keeps the others.
void free_those_of_programming(client &client, std::int64_t end_us)
{
    const auto is_of_programming = [](const auto &lock) { return lock.second == BIOS_ERR_BUSY; };
    for (;;) {
        const auto found = std::find_if(client.own.begin(), client.own.end(), is_of_programming);
        if (found == client.own.end())
            return;
        free_own(client, found->first, end_us);
    }
}

std::int32_t take(client &client, std::uint16_t node_id, std::uint32_t owner, std::uint32_t reason)
{
    if (!is_open(client) || !is_bound(client))
        return -1;
    if (client.own.contains(node_id))
        return 0;
    const std::int64_t end_us = monotonic_us() + CALL_LIMIT_US;
    const int error = take_new(client, node_id, owner, reason, end_us);
    if (error == 0)
        return 0;
    if (reason == BIOS_ERR_BUSY)
        free_those_of_programming(client, end_us);
    return failed(error);
}

// The agent keeps a record of each lock beside the lock file.
bool was_any_lock_taken()
{
    static watched_file lock_file(chassis_slot_path(chassis_own_slot(), MODULE_LOCK_FILE));
    return lock_file.may_have_changed();
}

bool is_known_free(client &client, std::uint16_t node_id)
{
    const bool taken = was_any_lock_taken();
    if (taken || monotonic_tick_us() > client.known_free_until_us)
        client.known_free.clear();
    return client.known_free.contains(node_id);
}

void note_free(client &client, std::uint16_t node_id)
{
    if (client.known_free.empty())
        client.known_free_until_us = monotonic_tick_us() + KNOWN_FREE_US;
    client.known_free.insert(node_id);
}

std::int32_t release_own(client &client, std::uint16_t node_id)
{
    const bool was_held = module_lock_record_read(node_id).has_value(); // else the agent has lost it
    free_own(client, node_id, monotonic_us() + CALL_LIMIT_US);
    return was_held ? 0 : failed(ENOENT);
}

// The lock is not this process's: says why it cannot be freed.
std::int32_t refuse_release(client &client, std::uint16_t node_id)
{
    if (is_known_free(client, node_id))
        return failed(ENOENT);
    if (client.file.is_others(node_id))
        return failed(EPERM);
    const auto status = ask_for_unlock(client, node_id, monotonic_us() + CALL_LIMIT_US);
    if (!status)
        return -1;
    const int error = errno_of(*status, EPERM);
    if (error == ENOENT)
        note_free(client, node_id);
    return failed(error);
}

std::int32_t release(client &client, std::uint16_t node_id)
{
    if (!is_open(client) || !is_bound(client))
        return -1;
    return client.own.contains(node_id) ? release_own(client, node_id) : refuse_release(client, node_id);
}

} // namespace

int32_t modlock_init(void)
{
    return c_boundary([] {
        client &client = this_client();
        client.own.clear(); // opening anew closes the old descriptor, and with it go all locks
        client.known_free.clear();
        mts_unbind(client.endpoint);
        client.endpoint = -1;
        return client.file.open() ? 0 : -1;
    });
}

int32_t modlock_module_lock(uint32_t owner, uint32_t node_id, const uint32_t request[4])
{
    if (request == nullptr) {
        errno = EINVAL;
        return -1;
    }
    return c_boundary([&] {
        return take(this_client(), static_cast<std::uint16_t>(node_id), owner, request[REQUEST_REASON_WORD]);
    });
}

int32_t modlock_module_unlock(uint32_t, uint32_t node_id)
{
    return c_boundary([&] { return release(this_client(), static_cast<std::uint16_t>(node_id)); });
}
