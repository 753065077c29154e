#include "lock_service.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "daemon_node.h"
#include "module_lock_message.h"

namespace
{

// None when the bytes are not one such record.
template<class Record>
std::optional<Record> record_of(const std::uint8_t *body, std::size_t bytes)
{
    if (bytes != sizeof(Record))
        return std::nullopt;
    Record record;
    std::memcpy(&record, body, sizeof record);
    return record;
}

bool is_time(const std::string &text)
{
    return !text.empty() && text.find_first_not_of("0123456789-:.TZ") == std::string::npos;
}

chassis_module_lock_holder only_node(std::uint16_t node_id)
{
    chassis_module_lock_holder holder{};
    holder.node_id = node_id;
    return holder;
}

bool is_same(mts_address_t one, mts_address_t other)
{
    return one.node == other.node && one.sap == other.sap;
}

// The first of a list that fits; taken out of it.
template<class Item, class Fits>
std::optional<Item> take_first(std::list<Item> &items, Fits fits)
{
    const auto found = std::find_if(items.begin(), items.end(), fits);
    if (found == items.end())
        return std::nullopt;
    Item item = std::move(*found);
    items.erase(found);
    return item;
}

} // namespace

lock_service::lock_service(lock_surroundings around, granted_locks granted,
                           const std::vector<chassis_module_lock_holder> &held)
    : around_(std::move(around)),
      granted_(std::move(granted))
{
    const std::int64_t now_us = around_.now_us();
    last_id_ = around_.first_id;
    for (auto &[node_id, lock] : granted_)
        lock.renewed_us = now_us;
    for (const chassis_module_lock_holder &holder : held)
        held_[holder.node_id] = {holder, server_of(holder.node_id), now_us, now_us - LOCK_RENEWAL_US, 0};
}

void lock_service::take(mts_address_t from, std::uint32_t opcode, const std::uint8_t *body, std::size_t bytes)
{
    dispatch(from, opcode, body, bytes);
    read_own_mail();
}

void lock_service::tick()
{
    tick_held();
    tick_granted();
    tick_requests();
    tick_checks();
    read_own_mail();
}

std::int64_t lock_service::wait_limit_us() const
{
    constexpr std::int64_t NEVER = INT64_MAX;
    std::int64_t next_us = NEVER;
    for (const request &asked : requests_)
        next_us = std::min({next_us, asked.next_us, asked.until_us});
    for (const check &open : checks_)
        next_us = std::min({next_us, open.next_us, open.until_us});
    for (const auto &[node_id, lock] : held_)
        next_us = std::min(next_us, lock.sent_us + LOCK_RENEWAL_US);
    for (const auto &[node_id, lock] : granted_)
        next_us = std::min(next_us, lock.renewed_us + LOCK_LIFE_US);
    return next_us == NEVER ? -1 : std::max<std::int64_t>(next_us - around_.now_us(), 0);
}

std::vector<chassis_module_lock_holder> lock_service::holders() const
{
    std::vector<chassis_module_lock_holder> holders;
    for (const auto &[node_id, lock] : granted_) {
        // An own process that has just ended is known without a question.
        if (lock.agent_node != around_.own_node || around_.is_wanted(node_id))
            holders.push_back(lock.holder);
    }
    return holders;
}

void lock_service::dispatch(mts_address_t from, std::uint32_t opcode, const std::uint8_t *body, std::size_t bytes)
{
    if (opcode == AGENT_OPC_LOCK) {
        if (const auto message = record_of<agent_lock_msg_t>(body, bytes); message)
            take_lock(from, *message);
    } else if (opcode == AGENT_OPC_LOCK_ANSWER) {
        if (const auto message = record_of<agent_lock_answer_t>(body, bytes); message)
            take_answer(from, *message);
    } else if (const auto message = record_of<agent_lock_node_t>(body, bytes); message) {
        if (opcode == AGENT_OPC_UNLOCK)
            take_unlock(from, *message);
        else if (opcode == AGENT_OPC_LOCK_CHECK)
            take_check(from, *message);
    }
}

void lock_service::take_lock(mts_address_t from, const agent_lock_msg_t &message)
{
    chassis_module_lock_holder holder = holder_of(message.lock);
    holder.slot = module_of_node(from.node);
    if (!is_time(holder.since))
        return;
    if (from.sap == AGENT_SAP)
        serve(from, message.id.load(), true, holder);
    else if (from.node == around_.own_node)
        begin(from, message.id.load(), true, holder);
}

void lock_service::take_unlock(mts_address_t from, const agent_lock_node_t &message)
{
    const auto holder = only_node(static_cast<std::uint16_t>(message.node_id.load()));
    if (from.sap == AGENT_SAP)
        serve(from, message.id.load(), false, holder);
    else if (from.node == around_.own_node)
        begin(from, message.id.load(), false, holder);
}

void lock_service::take_check(mts_address_t from, const agent_lock_node_t &message)
{
    const auto node_id = static_cast<std::uint16_t>(message.node_id.load());
    if (from.sap != AGENT_SAP || is_asked_for(node_id)) // the answer that makes it held may be on its way
        return;
    const auto found = held_.find(node_id);
    if (found != held_.end() && found->second.server == from.node && around_.is_wanted(node_id))
        renew(found->second);
    else
        send_unlock(from.node, node_id);
}

void lock_service::take_answer(mts_address_t from, const agent_lock_answer_t &message)
{
    if (from.sap != AGENT_SAP)
        return;
    const std::uint64_t id = message.id.load();
    const std::uint32_t status = message.status.load();
    const auto node_id = static_cast<std::uint16_t>(message.node_id.load());
    const auto asked =
        take_first(requests_, [&](const request &one) { return one.sent_id == id && one.server == from.node; });
    if (asked)
        return finish(*asked, status);
    const auto found = held_.find(node_id);
    if (found != held_.end() && found->second.sent_id == id && found->second.server == from.node) {
        if (status == AGENT_OK)
            found->second.confirmed_us = found->second.sent_us;
        else if (status == AGENT_ERR_LOCK_HELD) // the agents had lost each other for too long
            (void)end_held(found);
    } else if (found == held_.end() && status == AGENT_OK && !is_asked_for(node_id)) { // its process has given up
        send_unlock(from.node, node_id);
    }
}

bool lock_service::is_asked_for(std::uint16_t node_id) const
{
    return std::any_of(requests_.begin(), requests_.end(),
                       [&](const request &one) { return one.holder.node_id == node_id; });
}

// The module's card; this one when it has none.
std::uint32_t lock_service::server_of(std::uint16_t node_id) const
{
    const std::uint32_t node = around_.node_of_module(node_id);
    return node != 0 ? node : around_.own_node;
}

void lock_service::begin(mts_address_t from, std::uint64_t id, bool wants_lock,
                         const chassis_module_lock_holder &holder)
{
    const std::uint16_t node_id = holder.node_id;
    if (std::any_of(requests_.begin(), requests_.end(),
                    [&](const request &one) { return one.id == id && is_same(one.from, from); }))
        return; // it is on its way
    const bool is_wanted = around_.is_wanted(node_id);
    if (wants_lock != is_wanted) // asked for without the byte, or freed while another process has it
        return answer(from, id, node_id, wants_lock ? AGENT_ERR_REQUEST : AGENT_ERR_LOCK_HELD);
    if (wants_lock)
        finish_releases(node_id);
    const auto held = held_.find(node_id);
    const std::int64_t now_us = around_.now_us();
    request asked = {
        from, id, wants_lock, holder, server_of(node_id), ++last_id_, 0, now_us, now_us + LOCK_ANSWER_LIMIT_US};
    if (held != held_.end()) { // of a process that has ended, or that gives it back
        asked.server = held->second.server;
        (void)end_held(held);
    }
    requests_.push_back(asked);
    send_request(requests_.back());
}

// What is still on its way for an earlier process of this card must not take the lock away from the next one.
void lock_service::finish_releases(std::uint16_t node_id)
{
    while (const auto asked = take_first(
               requests_, [&](const request &one) { return one.holder.node_id == node_id && !one.wants_lock; }))
        answer(asked->from, asked->id, node_id, AGENT_ERR_LOCK_FREE);
}

// An agent that is not there just now may be about to start again.
void lock_service::send_request(request &asked)
{
    asked.next_us = around_.now_us() + LOCK_SEND_AGAIN_US;
    if (!is_reachable(asked.server))
        return;
    if (asked.sent_us == 0)
        asked.sent_us = around_.now_us();
    if (asked.wants_lock)
        send_lock(asked.server, asked.sent_id, asked.holder);
    else
        send_node(asked.server, AGENT_OPC_UNLOCK, asked.sent_id, asked.holder.node_id);
}

void lock_service::finish(const request &asked, std::uint32_t status)
{
    if (asked.wants_lock && status == AGENT_OK) {
        held_[asked.holder.node_id] = {asked.holder, asked.server, asked.sent_us, asked.sent_us, 0};
        around_.remember(asked.holder);
    }
    answer(asked.from, asked.id, asked.holder.node_id, status);
}

std::map<std::uint16_t, lock_service::held_lock>::iterator
lock_service::end_held(std::map<std::uint16_t, held_lock>::iterator lock)
{
    around_.forget(lock->first);
    return held_.erase(lock);
}

void lock_service::renew(held_lock &lock)
{
    const std::uint32_t server = server_of(lock.holder.node_id);
    if (server != lock.server && around_.has_agent(server)) { // it has one by now
        send_unlock(lock.server, lock.holder.node_id);
        lock.server = server;
    }
    lock.sent_us = around_.now_us();
    lock.sent_id = ++last_id_;
    send_lock(lock.server, lock.sent_id, lock.holder);
}

void lock_service::serve(mts_address_t from, std::uint64_t id, bool wants_lock,
                         const chassis_module_lock_holder &holder)
{
    const std::uint16_t node_id = holder.node_id;
    const auto found = granted_.find(node_id);
    const bool is_granted = found != granted_.end();
    if (is_granted && found->second.agent_node != from.node)
        return begin_check(from, id, wants_lock, holder);
    if (is_granted && id < found->second.id)
        return; // overtaken on its way
    if (wants_lock && !is_granted && around_.is_held_off(node_id))
        return answer(from, id, node_id, AGENT_ERR_LOCK_HELD);
    if (wants_lock) {
        grant(from.node, id, holder);
        answer(from, id, node_id, AGENT_OK);
        refuse_checks(node_id);
    } else {
        end_grant(node_id); // first: what is kept is true when the answer comes
        answer(from, id, node_id, AGENT_ERR_LOCK_FREE);
    }
}

void lock_service::grant(std::uint32_t agent_node, std::uint64_t id, const chassis_module_lock_holder &holder)
{
    granted_lock &lock = granted_[holder.node_id];
    const bool is_new = lock.agent_node != agent_node || !(lock.holder == holder);
    lock = {holder, agent_node, around_.now_us(), id};
    if (is_new)
        around_.keep(granted_);
}

// Whoever has waited for what its holder says is served as if it had asked now.
void lock_service::end_grant(std::uint16_t node_id)
{
    if (granted_.erase(node_id) != 0)
        around_.keep(granted_);
    const auto is_of_node = [&](const check &one) { return one.holder.node_id == node_id; };
    std::list<check> waiting;
    while (auto open = take_first(checks_, is_of_node))
        waiting.push_back(*open);
    for (const check &open : waiting)
        serve(open.from, open.id, open.wants_lock, open.holder);
}

void lock_service::begin_check(mts_address_t from, std::uint64_t id, bool wants_lock,
                               const chassis_module_lock_holder &holder)
{
    if (std::any_of(checks_.begin(), checks_.end(),
                    [&](const check &one) { return one.id == id && is_same(one.from, from); }))
        return; // it is on its way
    const std::int64_t now_us = around_.now_us();
    checks_.push_back({from, id, wants_lock, holder, now_us, now_us + LOCK_CHECK_LIMIT_US});
    send_check(checks_.back());
}

void lock_service::send_check(check &open)
{
    open.next_us = around_.now_us() + LOCK_SEND_AGAIN_US;
    if (const auto found = granted_.find(open.holder.node_id); found != granted_.end())
        send_node(found->second.agent_node, AGENT_OPC_LOCK_CHECK, ++last_id_, open.holder.node_id);
}

void lock_service::refuse_checks(std::uint16_t node_id)
{
    while (const auto open = take_first(checks_, [&](const check &one) { return one.holder.node_id == node_id; }))
        answer(open->from, open->id, node_id, AGENT_ERR_LOCK_HELD);
}

// A module whose card has no agent, seen from here the whole time, is locked here.
void lock_service::tick_requests()
{
    const std::int64_t now_us = around_.now_us();
    while (auto asked = take_first(requests_, [&](const request &one) { return now_us >= one.until_us; })) {
        if (asked->sent_us != 0) {
            answer(asked->from, asked->id, asked->holder.node_id, AGENT_ERR_LOCK_AGENT);
            continue;
        }
        asked->server = around_.own_node;
        asked->until_us = now_us + LOCK_CHECK_LIMIT_US;
        requests_.push_back(*asked);
        send_request(requests_.back());
    }
    for (request &asked : requests_) {
        if (now_us >= asked.next_us)
            send_request(asked);
    }
}

// A holder whose agent says nothing keeps its lock until its life is over.
void lock_service::tick_checks()
{
    const std::int64_t now_us = around_.now_us();
    while (const auto open = take_first(checks_, [&](const check &one) { return now_us >= one.until_us; }))
        answer(open->from, open->id, open->holder.node_id, AGENT_ERR_LOCK_HELD);
    for (check &open : checks_) {
        if (now_us >= open.next_us)
            send_check(open);
    }
}

void lock_service::tick_held()
{
    const std::int64_t now_us = around_.now_us();
    for (auto place = held_.begin(); place != held_.end();) {
        held_lock &lock = place->second;
        if (now_us < lock.sent_us + LOCK_RENEWAL_US) {
            ++place;
            continue;
        }
        const std::uint16_t node_id = place->first;
        const bool is_over = now_us > lock.confirmed_us + LOCK_LIFE_US;
        if (!is_over && around_.is_wanted(node_id)) {
            renew(lock);
            ++place;
            continue;
        }
        send_unlock(lock.server, node_id);
        place = end_held(place);
    }
}

void lock_service::tick_granted()
{
    const std::int64_t now_us = around_.now_us();
    std::vector<std::uint16_t> ended;
    for (const auto &[node_id, lock] : granted_) {
        if (now_us >= lock.renewed_us + LOCK_LIFE_US)
            ended.push_back(node_id);
    }
    for (const std::uint16_t node_id : ended)
        end_grant(node_id);
}

void lock_service::answer(mts_address_t to, std::uint64_t id, std::uint16_t node_id, std::uint32_t status)
{
    send(to, AGENT_OPC_LOCK_ANSWER, agent_lock_answer_t{be64::of(id), be32::of(node_id), be32::of(status)});
}

void lock_service::send_lock(std::uint32_t agent_node, std::uint64_t id, const chassis_module_lock_holder &holder)
{
    agent_lock_msg_t message{};
    message.id = be64::of(id);
    message.lock = message_of(holder);
    send({agent_node, AGENT_SAP}, AGENT_OPC_LOCK, message);
}

void lock_service::send_unlock(std::uint32_t agent_node, std::uint16_t node_id)
{
    send_node(agent_node, AGENT_OPC_UNLOCK, ++last_id_, node_id);
}

void lock_service::send_node(std::uint32_t agent_node, std::uint32_t opcode, std::uint64_t id,
                             std::uint16_t node_id)
{
    send({agent_node, AGENT_SAP}, opcode, agent_lock_node_t{be64::of(id), be32::of(node_id)});
}

template<class Record>
void lock_service::send(mts_address_t to, std::uint32_t opcode, const Record &record)
{
    if (!is_same(to, {around_.own_node, AGENT_SAP}))
        return around_.send(to, opcode, &record, sizeof record);
    const auto *bytes = reinterpret_cast<const std::uint8_t *>(&record);
    own_mail_.push_back({opcode, {bytes, bytes + sizeof record}});
}

void lock_service::read_own_mail()
{
    while (!own_mail_.empty()) {
        const mail next = std::move(own_mail_.front());
        own_mail_.pop_front();
        dispatch({around_.own_node, AGENT_SAP}, next.opcode, next.body.data(), next.body.size());
    }
}
