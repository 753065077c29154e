#include "operator_locks.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <optional>
#include <sstream>

#include "bios_results.h"
#include "card_facts.h"
#include "chassis_dir.h"
#include "flash_geometry.h"
#include "line_file.h"
#include "module_lock_file.h"
#include "module_lock_message.h"
#include "module_locks.h"
#include "mts_tools.h"
#include "printable_text.h"
#include "utc_time.h"
#include "writing_status.h"

namespace
{

constexpr std::size_t FILE_LIMIT_BYTES = 1 << 20;

using lock_list = std::vector<chassis_module_lock_holder>;

// A lock as it stands in the file, where times are numbers.
struct kept_lock {
    std::uint16_t node_id = 0;
    std::int64_t since_s = 0;
    std::int64_t until_s = 0;
    std::string user;
    std::string host;
};

std::string file_path()
{
    return chassis_slot_path(chassis_own_slot(), "locks/operators");
}

// A word of a line.
bool is_name(const std::string &text, std::size_t field_bytes)
{
    return !text.empty() && text.size() < field_bytes && std::all_of(text.begin(), text.end(), [](char character) {
        return is_printable(character) && character != ' ';
    });
}

template<std::size_t SIZE>
std::optional<std::string> name_in(const char (&field)[SIZE])
{
    std::string name = field_text(field).text;
    return is_name(name, SIZE) ? std::optional(std::move(name)) : std::nullopt;
}

std::optional<kept_lock> lock_of(const std::string &line)
{
    unsigned node_id = 0;
    long long since_s = 0;
    long long until_s = 0;
    int read = 0;
    if (std::sscanf(line.c_str(), "%4x %lld %lld %n", &node_id, &since_s, &until_s, &read) != 3 || read == 0)
        return std::nullopt;
    const std::string names = line.substr(static_cast<std::size_t>(read));
    const std::size_t blank = std::min(names.find(' '), names.size());
    kept_lock lock = {static_cast<std::uint16_t>(node_id), since_s, until_s, names.substr(0, blank),
                      names.substr(std::min(blank + 1, names.size()))};
    if (!is_name(lock.user, AGENT_USER_BYTES) || !is_name(lock.host, AGENT_HOST_BYTES))
        return std::nullopt;
    return lock;
}

// Each node once: the last line counts.
std::vector<kept_lock> locks_in(std::string_view text, std::int64_t now_s)
{
    std::vector<kept_lock> locks;
    std::istringstream lines{std::string(text)};
    for (std::string line; std::getline(lines, line);) {
        auto lock = lock_of(line);
        if (!lock || lock->until_s <= now_s)
            continue;
        std::erase_if(locks, [&](const kept_lock &one) { return one.node_id == lock->node_id; });
        locks.push_back(std::move(*lock));
    }
    std::ranges::sort(locks, {}, &kept_lock::node_id);
    return locks;
}

std::vector<kept_lock> load()
{
    std::string text;
    if (!chassis_read_file(file_path(), text, FILE_LIMIT_BYTES))
        text.clear();
    return locks_in(text, std::time(nullptr));
}

agent_status store(const std::vector<kept_lock> &locks)
{
    std::string text;
    for (const kept_lock &lock : locks) {
        char numbers[64];
        std::snprintf(numbers, sizeof numbers, "%x %lld %lld ", unsigned{lock.node_id},
                      static_cast<long long>(lock.since_s), static_cast<long long>(lock.until_s));
        text += numbers + lock.user + " " + lock.host + "\n";
    }
    if (make_slot_folder(chassis_own_slot(), MODULE_LOCK_FOLDER) && chassis_write_file(file_path(), text))
        return AGENT_OK;
    return writing_status();
}

chassis_module_lock_holder holder_of(const kept_lock &lock)
{
    return {.node_id = lock.node_id,
            .slot = 0,
            .pid = 0,
            .owner = 0,
            .reason = BIOS_LOCK_FOR_PEER,
            .since = utc_seconds(lock.since_s),
            .user = lock.user,
            .host = lock.host,
            .until = utc_seconds(lock.until_s)};
}

bool has_a_process(std::uint16_t node_id)
{
    const lock_service *service = module_locks();
    if (service == nullptr)
        return false;
    const lock_list holders = service->holders();
    return std::ranges::find(holders, node_id, &chassis_module_lock_holder::node_id) != holders.end();
}

bool is_programmed(std::uint16_t node_id)
{
    if (node_id != mts_node_of_slot(chassis_own_slot()))
        return false;
    for (unsigned instance = 0; instance < FLASH_INSTANCE_COUNT; ++instance) {
        if ((flash_state_of(instance) & AGENT_FLASH_HAS_WRITER) != 0)
            return true;
    }
    return false;
}

} // namespace

lock_list parse_operator_locks(std::string_view text, std::int64_t now_s)
{
    lock_list holders;
    for (const kept_lock &lock : locks_in(text, now_s))
        holders.push_back(holder_of(lock));
    return holders;
}

lock_list operator_locks()
{
    lock_list holders;
    for (const kept_lock &lock : load())
        holders.push_back(holder_of(lock));
    return holders;
}

bool is_locked_for_operator(std::uint16_t node_id)
{
    const std::vector<kept_lock> locks = load();
    return std::ranges::find(locks, node_id, &kept_lock::node_id) != locks.end();
}

answer operator_lock_answer(const agent_operator_lock_req_t &request)
{
    const auto user = name_in(request.user);
    const auto host = name_in(request.host);
    const std::uint32_t seconds = request.seconds.load();
    if (!user || !host || seconds == 0 || seconds > AGENT_LOCK_SECONDS_MAX)
        return AGENT_ERR_REQUEST;
    const auto node_id = static_cast<std::uint16_t>(request.node_id.load());
    if (!is_module_lock_served_here(node_id))
        return AGENT_ERR_LOCK_AGENT;
    if (is_programmed(node_id))
        return AGENT_ERR_PROGRAMMED;
    if (has_a_process(node_id))
        return AGENT_ERR_LOCK_HELD;
    std::vector<kept_lock> locks = load();
    const std::int64_t now_s = std::time(nullptr);
    kept_lock wanted = {node_id, now_s, now_s + seconds, *user, *host};
    if (const auto found = std::ranges::find(locks, node_id, &kept_lock::node_id); found != locks.end()) {
        if (found->user != *user || found->host != *host)
            return AGENT_ERR_LOCK_HELD;
        wanted.since_s = found->since_s;
        *found = wanted;
    } else {
        locks.push_back(wanted);
    }
    if (const agent_status status = store(locks); status != AGENT_OK)
        return status;
    answer lock;
    lock.add(held_message_of(holder_of(wanted)));
    return lock;
}

answer operator_unlock_answer(const agent_operator_unlock_req_t &request)
{
    const auto user = name_in(request.user);
    const auto host = name_in(request.host);
    if (!user || !host || request.force.load() > 1)
        return AGENT_ERR_REQUEST;
    const auto node_id = static_cast<std::uint16_t>(request.node_id.load());
    std::vector<kept_lock> locks = load();
    const auto found = std::ranges::find(locks, node_id, &kept_lock::node_id);
    if (found == locks.end())
        return has_a_process(node_id) ? AGENT_ERR_LOCK_HELD : AGENT_ERR_LOCK_FREE;
    if ((found->user != *user || found->host != *host) && request.force.load() == 0)
        return AGENT_ERR_LOCK_HELD;
    locks.erase(found);
    return store(locks);
}
