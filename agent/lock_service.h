// Module locks, as a card's agent serves them. It does two things:
//
//   for the processes of its own card  it gets the lock from the agent of the module's card, renews it there twice
//   a
//                                      second, and gives it back when the process has ended
//   for the modules of its own card    it grants the lock to one agent at a time
//
// A granted lock ends when its agent gives it back, or has not renewed it for LOCK_LIFE_US; an agent that gets no
// answer to its renewals gives up by itself after the same time. A module whose card has no agent, or that has no
// card, is locked at the agent of the asking card. Before a lock is refused, its holder's agent is asked whether it
// is still held.
//
// Nothing here waits: a message comes in, messages go out. What has to be waited for stands in a list.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <vector>

#include "agent_messages.h"
#include "granted_locks.h"
#include "mts.h"

constexpr std::int64_t LOCK_RENEWAL_US = 500'000;
constexpr std::int64_t LOCK_LIFE_US = 5'000'000;
constexpr std::int64_t LOCK_ANSWER_LIMIT_US = 700'000; // the asking process waits 900 ms
constexpr std::int64_t LOCK_CHECK_LIMIT_US = 400'000;
constexpr std::int64_t LOCK_SEND_AGAIN_US = 150'000;

// What the service needs of its card.
struct lock_surroundings {
    std::uint32_t own_node = 0;
    std::uint64_t first_id = 0; // above all that were sent by the agent before this one
    std::function<std::int64_t()> now_us;
    std::function<void(mts_address_t to, std::uint32_t opcode, const void *body, std::size_t bytes)> send;
    std::function<bool(std::uint32_t node)> has_agent;                  // an agent is there
    std::function<std::uint32_t(std::uint16_t node_id)> node_of_module; // of the module's card; 0: it has no card
    std::function<bool(std::uint16_t node_id)> is_wanted;               // a process of this card has the byte
    std::function<void(const chassis_module_lock_holder &)> remember;   // keeps the record of a lock of this card
    std::function<void(std::uint16_t node_id)> forget;                  // removes it
    std::function<bool(std::uint16_t node_id)> is_held_off;             // no process gets the lock now
    std::function<void(const granted_locks &)> keep;                    // for the agent that comes after this one
};

class lock_service
{
public:
    // granted, held: what an agent before this one has left; both are to be renewed from now on.
    lock_service(lock_surroundings around, granted_locks granted,
                 const std::vector<chassis_module_lock_holder> &held);

    // Takes a message of one of the four opcodes; what is none of them, or not of its length, is passed over.
    void take(mts_address_t from, std::uint32_t opcode, const std::uint8_t *body, std::size_t bytes);

    // Does what is due. To be called before each message and when the time has come.
    void tick();

    // Microseconds until tick has something to do; -1: not before a message comes.
    std::int64_t wait_limit_us() const;

    // The locks that are held and served here, in order of the node ids.
    std::vector<chassis_module_lock_holder> holders() const;

private:
    // A lock that a process of this card has.
    struct held_lock {
        chassis_module_lock_holder holder;
        std::uint32_t server = 0;      // node of the agent that has granted it
        std::int64_t confirmed_us = 0; // when the renewal was sent that was confirmed last
        std::int64_t sent_us = 0;
        std::uint64_t sent_id = 0;
    };
    // A process of this card that waits for an answer.
    struct request {
        mts_address_t from;
        std::uint64_t id;
        bool wants_lock; // else to give it back
        chassis_module_lock_holder holder;
        std::uint32_t server;
        std::uint64_t sent_id;
        std::int64_t sent_us;  // for the first time; 0: not yet
        std::int64_t next_us;  // when it is sent again
        std::int64_t until_us; // when it is given up
    };
    // Another agent that waits for what a lock's holder says.
    struct check {
        mts_address_t from;
        std::uint64_t id;
        bool wants_lock;
        chassis_module_lock_holder holder;
        std::int64_t next_us;
        std::int64_t until_us;
    };
    struct mail { // to this agent, from itself
        std::uint32_t opcode;
        std::vector<std::uint8_t> body;
    };

    void dispatch(mts_address_t from, std::uint32_t opcode, const std::uint8_t *body, std::size_t bytes);
    void take_lock(mts_address_t from, const agent_lock_msg_t &message);
    void take_unlock(mts_address_t from, const agent_lock_node_t &message);
    void take_check(mts_address_t from, const agent_lock_node_t &message);
    void take_answer(mts_address_t from, const agent_lock_answer_t &message);

    // For the processes of this card.
    void begin(mts_address_t from, std::uint64_t id, bool wants_lock, const chassis_module_lock_holder &holder);
    void finish_releases(std::uint16_t node_id);
    void send_request(request &asked);
    void finish(const request &asked, std::uint32_t status);
    void renew(held_lock &lock);
    std::uint32_t server_of(std::uint16_t node_id) const;
    std::map<std::uint16_t, held_lock>::iterator end_held(std::map<std::uint16_t, held_lock>::iterator lock);
    bool is_asked_for(std::uint16_t node_id) const;
    bool is_reachable(std::uint32_t server) const
    {
        return server == around_.own_node || around_.has_agent(server);
    }

    // For the modules of this card.
    void serve(mts_address_t from, std::uint64_t id, bool wants_lock, const chassis_module_lock_holder &holder);
    void grant(std::uint32_t agent_node, std::uint64_t id, const chassis_module_lock_holder &holder);
    void end_grant(std::uint16_t node_id);
    void begin_check(mts_address_t from, std::uint64_t id, bool wants_lock,
                     const chassis_module_lock_holder &holder);
    void send_check(check &open);
    void refuse_checks(std::uint16_t node_id);

    void tick_requests();
    void tick_checks();
    void tick_held();
    void tick_granted();

    void answer(mts_address_t to, std::uint64_t id, std::uint16_t node_id, std::uint32_t status);
    void send_lock(std::uint32_t agent_node, std::uint64_t id, const chassis_module_lock_holder &holder);
    void send_unlock(std::uint32_t agent_node, std::uint16_t node_id);
    void send_node(std::uint32_t agent_node, std::uint32_t opcode, std::uint64_t id, std::uint16_t node_id);
    template<class Record>
    void send(mts_address_t to, std::uint32_t opcode, const Record &record);
    void read_own_mail();

    lock_surroundings around_;
    granted_locks granted_;
    std::map<std::uint16_t, held_lock> held_;
    std::list<request> requests_;
    std::list<check> checks_;
    std::deque<mail> own_mail_; // read when what has caused it is over
    std::uint64_t last_id_ = 0;
};
