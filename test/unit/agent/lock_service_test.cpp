// The lock services of a few cards, with a network, clocks and processes that exist in this test only: so that
// messages can be lost, agents be stopped and cards be cut at any moment.
#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <memory>
#include <set>

#include "lock_service.h"
#include "module_lock_message.h"
#include "seeded_chance.h"
#include "test_seed.h"

namespace
{

constexpr std::uint32_t A = 0x0101; // nodes of the cards in slots 1, 2 and 3
constexpr std::uint32_t B = 0x0201;
constexpr std::uint32_t C = 0x0302;
constexpr std::uint16_t MODULE_B = 0x0201;
constexpr std::uint16_t EMPTY_SLOT = 0x0902;
constexpr std::uint32_t PROCESS_SAP = 0x10000; // of a first process; the next ones follow
constexpr std::int64_t MS = 1000;

struct datagram {
    mts_address_t from;
    mts_address_t to;
    std::uint32_t opcode;
    std::vector<std::uint8_t> body;
};

struct card {
    std::unique_ptr<lock_service> agent; // none: it is not running
    bool is_stopped = false;             // it runs, takes no message and does nothing
    granted_locks kept;
    std::map<std::uint16_t, std::uint32_t> bytes; // node id: sap of the process that has the byte
    std::set<std::uint16_t> records;
    std::set<std::uint16_t> held_off; // for an operator
};

class LockService : public ::testing::Test
{
protected:
    LockService()
    {
        for (const std::uint32_t node : {A, B, C})
            start_agent(node);
    }

    void start_agent(std::uint32_t node)
    {
        card &own = cards_[node];
        std::vector<chassis_module_lock_holder> held;
        for (const auto &[node_id, sap] : own.bytes) {
            if (own.records.contains(node_id))
                held.push_back(holder(node_id, node, sap));
        }
        own.agent = std::make_unique<lock_service>(surroundings(node), own.kept, held);
    }
    void end_agent(std::uint32_t node) { cards_[node].agent.reset(); }
    void cut_power(std::uint32_t node)
    {
        end_agent(node);
        cards_.at(node) = {};
    }

    // A process asks for a lock. As in the daemon: its byte first, then the agent.
    void ask(std::uint32_t node, std::uint16_t node_id, std::uint32_t process = PROCESS_SAP)
    {
        card &own = cards_[node];
        if (!own.bytes.try_emplace(node_id, process).second) {
            answers_[{node, process}] = AGENT_ERR_LOCK_HELD;
            return;
        }
        asked_[{node, process}] = node_id;
        answers_.erase({node, process});
        const agent_lock_msg_t body = {be64::of(next_id(node, process)),
                                       message_of(holder(node_id, node, process))};
        post({{node, process}, {node, AGENT_SAP}, AGENT_OPC_LOCK, bytes_of(body)});
    }
    // It gives it back, or one that it never had.
    void give_back(std::uint32_t node, std::uint16_t node_id, std::uint32_t process = PROCESS_SAP)
    {
        end_process(node, node_id, process);
        asked_.erase({node, process});
        answers_.erase({node, process});
        const agent_lock_node_t body = {be64::of(next_id(node, process)), be32::of(node_id)};
        post({{node, process}, {node, AGENT_SAP}, AGENT_OPC_UNLOCK, bytes_of(body)});
    }
    // It ends without a word.
    void end_process(std::uint32_t node, std::uint16_t node_id, std::uint32_t process = PROCESS_SAP)
    {
        card &own = cards_[node];
        const auto found = own.bytes.find(node_id);
        if (found == own.bytes.end() || found->second != process)
            return;
        own.bytes.erase(found);
    }

    // Time passes, in steps in which everything that was sent arrives.
    void pass(std::int64_t ms)
    {
        for (const std::int64_t end_us = now_us_ + ms * MS; now_us_ < end_us; now_us_ += 10 * MS)
            step();
        step();
    }
    void step()
    {
        for (auto &[node, own] : cards_) {
            if (own.agent && !own.is_stopped)
                own.agent->tick();
        }
        for (std::size_t waiting = network_.size(); waiting > 0 || !network_.empty(); waiting = network_.size())
            deliver_next();
    }
    void deliver_next()
    {
        const auto place =
            network_.begin() + static_cast<std::ptrdiff_t>(overtaking_ ? overtaking_(network_.size()) : 0);
        const datagram next = *place;
        network_.erase(place);
        if (next.to.sap != AGENT_SAP) {
            agent_lock_answer_t answer;
            ASSERT_EQ(next.body.size(), sizeof answer);
            std::memcpy(&answer, next.body.data(), sizeof answer);
            if (answer.id.load() == waits_for_[{next.to.node, next.to.sap}]) // else it has asked anew
                answers_[{next.to.node, next.to.sap}] = answer.status.load();
            return;
        }
        card &receiver = cards_[next.to.node];
        if (receiver.is_stopped)
            stalled_.push_back(next);
        else if (receiver.agent)
            receiver.agent->take(next.from, next.opcode, next.body.data(), next.body.size());
    }
    void stop(std::uint32_t node) { cards_[node].is_stopped = true; }
    void go_on(std::uint32_t node)
    {
        cards_[node].is_stopped = false;
        if (cards_[node].agent)
            cards_[node].agent->tick(); // as the agent does before each message
        for (; !stalled_.empty(); stalled_.pop_front())
            network_.push_back(stalled_.front());
    }

    // What the process was told about its last request; 0xffffffff: nothing.
    std::uint32_t told(std::uint32_t node, std::uint32_t process = PROCESS_SAP) const
    {
        const auto found = answers_.find({node, process});
        return found != answers_.end() ? found->second : ~0U;
    }
    // The slots of the holders that the agents name for a module, in order of the agents.
    std::vector<unsigned> holders(std::uint16_t node_id) const
    {
        std::vector<unsigned> slots;
        for (const auto &[node, own] : cards_) {
            if (!own.agent || own.is_stopped)
                continue;
            for (const chassis_module_lock_holder &one : own.agent->holders()) {
                if (one.node_id == node_id)
                    slots.push_back(one.slot);
            }
        }
        return slots;
    }

    static chassis_module_lock_holder holder(std::uint16_t node_id, std::uint32_t node, std::uint32_t process)
    {
        return {node_id, node / 256, process, 129, 0x4071000a, "2026-01-31T23:59:59Z"};
    }
    template<class Record>
    static std::vector<std::uint8_t> bytes_of(const Record &record)
    {
        const auto *bytes = reinterpret_cast<const std::uint8_t *>(&record);
        return {bytes, bytes + sizeof record};
    }
    std::uint64_t next_id(std::uint32_t node, std::uint32_t process)
    {
        return waits_for_[{node, process}] = ++process_id_;
    }
    void post(const datagram &message)
    {
        ++sent_;
        if (!is_lost_ || !is_lost_(message))
            network_.push_back(message);
    }

    lock_surroundings surroundings(std::uint32_t node)
    {
        return {
            .own_node = node,
            .first_id = ++lives_ << 32,
            .now_us = [this] { return now_us_; },
            .send =
                [this, node](mts_address_t to, std::uint32_t opcode, const void *body, std::size_t bytes) {
                    const auto *begin = static_cast<const std::uint8_t *>(body);
                    post({{node, AGENT_SAP}, to, opcode, {begin, begin + bytes}});
                },
            .has_agent = [this](std::uint32_t other) { return cards_[other].agent != nullptr; },
            .node_of_module =
                [](std::uint16_t node_id) {
                    return node_id / 256 == 1 ? A : node_id / 256 == 2 ? B : node_id / 256 == 3 ? C : 0;
                },
            .is_wanted = [this, node](std::uint16_t node_id) { return cards_[node].bytes.contains(node_id); },
            .remember = [this,
                         node](const chassis_module_lock_holder &one) { cards_[node].records.insert(one.node_id); },
            .forget = [this, node](std::uint16_t node_id) { cards_[node].records.erase(node_id); },
            .is_held_off = [this, node](std::uint16_t node_id) { return cards_[node].held_off.contains(node_id); },
            .keep = [this, node](const granted_locks &granted) { cards_[node].kept = granted; }};
    }

    using process_id = std::pair<std::uint32_t, std::uint32_t>; // node and sap

    std::int64_t now_us_ = 1'000'000'000;
    std::map<std::uint32_t, card> cards_;
    std::deque<datagram> network_;
    std::deque<datagram> stalled_;
    std::map<process_id, std::uint32_t> answers_;
    std::map<process_id, std::uint16_t> asked_;
    std::map<process_id, std::uint64_t> waits_for_; // the id of its last message
    std::function<bool(const datagram &)> is_lost_;
    std::function<std::size_t(std::size_t)> overtaking_; // which of so many arrives next
    unsigned sent_ = 0;
    std::uint64_t lives_ = 0;      // of agents
    std::uint64_t process_id_ = 0; // of a message of a process
};

using slots = std::vector<unsigned>;

} // namespace

TEST_F(LockService, OneProcessOfAllCardsHasTheLock)
{
    ask(A, MODULE_B);
    pass(0);
    EXPECT_EQ(told(A), AGENT_OK);
    ask(C, MODULE_B);
    ask(B, MODULE_B);
    pass(0);
    EXPECT_EQ(told(C), AGENT_ERR_LOCK_HELD);
    EXPECT_EQ(told(B), AGENT_ERR_LOCK_HELD);
    EXPECT_EQ(holders(MODULE_B), slots{1});
}

TEST_F(LockService, IsNoProcesssWhileItIsAnOperators)
{
    cards_[B].held_off = {MODULE_B};
    ask(A, MODULE_B);
    ask(B, MODULE_B);
    pass(0);
    EXPECT_EQ(told(A), AGENT_ERR_LOCK_HELD);
    EXPECT_EQ(told(B), AGENT_ERR_LOCK_HELD);
    EXPECT_EQ(holders(MODULE_B), slots{});
    cards_[B].held_off.clear();
    give_back(A, MODULE_B);
    give_back(B, MODULE_B);
    pass(0);
    ask(A, MODULE_B);
    pass(0);
    EXPECT_EQ(told(A), AGENT_OK);
}

// An operator gets no lock that a process has; if it comes to both, the process keeps what it has.
TEST_F(LockService, StaysAProcesssThatHasItAlready)
{
    ask(A, MODULE_B);
    pass(0);
    cards_[B].held_off = {MODULE_B};
    pass(20'000);
    EXPECT_EQ(holders(MODULE_B), slots{1});
}

TEST_F(LockService, IsFreeForOthersWhenItWasGivenBack)
{
    ask(A, MODULE_B);
    pass(0);
    give_back(A, MODULE_B);
    pass(0);
    EXPECT_EQ(told(A), AGENT_ERR_LOCK_FREE);
    EXPECT_EQ(holders(MODULE_B), slots{});
    ask(C, MODULE_B);
    pass(0);
    EXPECT_EQ(told(C), AGENT_OK);
}

TEST_F(LockService, SaysWhyALockCannotBeGivenBack)
{
    give_back(A, MODULE_B);
    pass(0);
    EXPECT_EQ(told(A), AGENT_ERR_LOCK_FREE);
    ask(C, MODULE_B);
    pass(0);
    give_back(A, MODULE_B);
    pass(0);
    EXPECT_EQ(told(A), AGENT_ERR_LOCK_HELD);
    EXPECT_EQ(holders(MODULE_B), slots{3});
}

TEST_F(LockService, AProcessThatEndedKeepsNobodyWaiting)
{
    ask(A, MODULE_B);
    pass(0);
    end_process(A, MODULE_B);
    ask(C, MODULE_B);
    pass(0);
    EXPECT_EQ(told(C), AGENT_OK);
    EXPECT_EQ(holders(MODULE_B), slots{3});
    pass(1000);
    EXPECT_EQ(holders(MODULE_B), slots{3}) << "what the ended one's agent says later takes nothing away";
}

TEST_F(LockService, AProcessThatEndedIsNoHolderAfterASecond)
{
    ask(A, MODULE_B);
    pass(0);
    end_process(A, MODULE_B);
    pass(600);
    EXPECT_EQ(holders(MODULE_B), slots{});
}

TEST_F(LockService, StaysForAsLongAsItsProcessLives)
{
    ask(A, MODULE_B);
    pass(60'000);
    EXPECT_EQ(holders(MODULE_B), slots{1});
    ask(C, MODULE_B);
    pass(0);
    EXPECT_EQ(told(C), AGENT_ERR_LOCK_HELD);
}

TEST_F(LockService, SurvivesANewAgentOfTheHolderAndOfTheModule)
{
    ask(A, MODULE_B);
    pass(0);
    for (const std::uint32_t node : {A, B}) {
        end_agent(node);
        pass(1000);
        start_agent(node);
        ask(C, MODULE_B);
        pass(0);
        EXPECT_EQ(told(C), AGENT_ERR_LOCK_HELD) << node;
        end_process(C, MODULE_B);
        pass(1000);
        EXPECT_EQ(holders(MODULE_B), slots{1}) << node;
    }
}

TEST_F(LockService, EndsWhenTheHoldersCardIsGone)
{
    ask(A, MODULE_B);
    pass(0);
    cut_power(A);
    pass(4900);
    EXPECT_EQ(holders(MODULE_B), slots{1});
    pass(200);
    EXPECT_EQ(holders(MODULE_B), slots{});
}

TEST_F(LockService, EndsWhenTheModulesCardIsGoneAndComesBack)
{
    ask(A, MODULE_B);
    pass(0);
    cut_power(B);
    pass(6000);
    start_agent(B);
    pass(1000);
    EXPECT_EQ(holders(MODULE_B), slots{});
    ask(C, MODULE_B);
    pass(0);
    EXPECT_EQ(told(C), AGENT_OK);
    pass(2000);
    EXPECT_EQ(holders(MODULE_B), slots{3}) << "the first one's agent renews what has ended";
}

TEST_F(LockService, EndsForBothWhenTheAgentsHaveLostEachOtherForFiveSeconds)
{
    for (const std::uint32_t stopped : {A, B}) {
        ask(A, MODULE_B);
        pass(100);
        ASSERT_EQ(told(A), AGENT_OK);
        stop(stopped);
        pass(6000);
        go_on(stopped);
        pass(20);
        EXPECT_EQ(holders(MODULE_B), slots{}) << stopped;
        pass(3000);
        EXPECT_EQ(holders(MODULE_B), slots{}) << stopped;
        EXPECT_FALSE(cards_[A].records.contains(MODULE_B));
        end_process(A, MODULE_B);
    }
}

TEST_F(LockService, OutlastsASilenceOfFourSeconds)
{
    ask(A, MODULE_B);
    pass(0);
    stop(B);
    pass(4000);
    go_on(B);
    pass(1000);
    EXPECT_EQ(holders(MODULE_B), slots{1});
}

TEST_F(LockService, IsRefusedWithinASecondByAnAgentThatSaysNothing)
{
    stop(B);
    ask(A, MODULE_B);
    pass(720);
    EXPECT_EQ(told(A), AGENT_ERR_LOCK_AGENT);
}

TEST_F(LockService, IsRefusedWithinASecondForAHolderWhoseAgentSaysNothing)
{
    ask(A, MODULE_B);
    pass(0);
    stop(A);
    ask(C, MODULE_B);
    pass(420);
    EXPECT_EQ(told(C), AGENT_ERR_LOCK_HELD);
}

TEST_F(LockService, OfAnEmptySlotIsLockedAtTheAskingCard)
{
    ask(A, EMPTY_SLOT);
    pass(0);
    EXPECT_EQ(told(A), AGENT_OK);
    EXPECT_EQ(holders(EMPTY_SLOT), slots{1});
    give_back(A, EMPTY_SLOT);
    pass(0);
    EXPECT_EQ(told(A), AGENT_ERR_LOCK_FREE);
    EXPECT_EQ(holders(EMPTY_SLOT), slots{});
}

TEST_F(LockService, OfACardWithoutAgentIsLockedAtTheAskingCardUntilItHasOne)
{
    end_agent(B);
    ask(A, MODULE_B);
    pass(720);
    EXPECT_EQ(told(A), AGENT_OK);
    start_agent(B);
    pass(600);
    EXPECT_EQ(cards_[B].agent->holders().size(), 1U);
    EXPECT_EQ(holders(MODULE_B), slots{1});
    ask(C, MODULE_B);
    pass(0);
    EXPECT_EQ(told(C), AGENT_ERR_LOCK_HELD);
}

TEST_F(LockService, WaitsForAnAgentThatIsBeingStarted)
{
    end_agent(B);
    ask(A, MODULE_B);
    pass(300);
    start_agent(B);
    pass(200);
    EXPECT_EQ(told(A), AGENT_OK);
    EXPECT_EQ(cards_[B].agent->holders().size(), 1U);
}

TEST_F(LockService, TakesNothingFromAProcessThatDoesNotHaveTheByte)
{
    const agent_lock_msg_t body = {be64::of(next_id(A, PROCESS_SAP)), message_of(holder(MODULE_B, A, PROCESS_SAP))};
    post({{A, PROCESS_SAP}, {A, AGENT_SAP}, AGENT_OPC_LOCK, bytes_of(body)});
    pass(0);
    EXPECT_EQ(told(A), AGENT_ERR_REQUEST);
    EXPECT_EQ(holders(MODULE_B), slots{});
}

TEST_F(LockService, TakesNothingFromAProcessOfAnotherCard)
{
    cards_[A].bytes[MODULE_B] = PROCESS_SAP;
    const agent_lock_msg_t body = {be64::of(7), message_of(holder(MODULE_B, A, PROCESS_SAP))};
    for (const std::uint32_t receiver : {A, B})
        post({{C, PROCESS_SAP}, {receiver, AGENT_SAP}, AGENT_OPC_LOCK, bytes_of(body)});
    pass(0);
    EXPECT_EQ(told(C), ~0U);
    EXPECT_EQ(holders(MODULE_B), slots{});
}

TEST_F(LockService, PassesOverMessagesOfAnotherLengthAndTimesThatAreNone)
{
    agent_lock_msg_t body = {be64::of(7), message_of(holder(MODULE_B, C, PROCESS_SAP))};
    std::vector<std::uint8_t> bytes = bytes_of(body);
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, bytes.size() - 1, bytes.size() + 1}) {
        std::vector<std::uint8_t> other = bytes;
        other.resize(size);
        for (std::uint32_t opcode = AGENT_OPC_LOCK; opcode <= AGENT_OPC_LOCK_ANSWER; ++opcode)
            post({{C, AGENT_SAP}, {B, AGENT_SAP}, opcode, other});
    }
    std::memcpy(body.lock.since, "1\n0302 3 1", 10);
    post({{C, AGENT_SAP}, {B, AGENT_SAP}, AGENT_OPC_LOCK, bytes_of(body)});
    pass(0);
    EXPECT_EQ(holders(MODULE_B), slots{});
}

TEST_F(LockService, SendsNothingWhileNobodyHasALock)
{
    ask(A, MODULE_B);
    pass(0);
    give_back(A, MODULE_B);
    pass(600);
    const unsigned before = sent_;
    pass(10'000);
    EXPECT_EQ(sent_, before);
    for (const auto &[node, own] : cards_)
        EXPECT_EQ(own.agent->wait_limit_us(), -1) << node;
}

// Of all processes that were told that they have the lock, and that live and whose agents have not lost each other,
// there is one at most; and when all is quiet the lock can be had.
TEST_F(LockService, HasOneHolderWhateverIsLostAndWhoeverEnds)
{
    std::uint64_t chance = test_seed();
    const auto dice = [&chance](std::uint64_t sides) { return spread_number(chance += SEED_STEP) % sides; };
    is_lost_ = [&](const datagram &) { return dice(5) == 0; };
    overtaking_ = [&](std::size_t waiting) { return dice(4) == 0 ? dice(waiting) : 0; };
    const std::uint32_t nodes[] = {A, B, C};
    for (unsigned round = 0; round < 3000; ++round) {
        const std::uint32_t node = nodes[dice(3)];
        const std::uint32_t process = PROCESS_SAP + static_cast<std::uint32_t>(dice(2));
        switch (dice(6)) {
        case 0:
        case 1:
            ask(node, MODULE_B, process);
            break;
        case 2:
            give_back(node, MODULE_B, process);
            break;
        case 3:
            end_process(node, MODULE_B, process);
            asked_.erase({node, process});
            break;
        case 4:
            end_agent(node);
            start_agent(node);
            break;
        default:
            pass(static_cast<std::int64_t>(dice(300)));
        }
        for (unsigned k = 0; k < dice(4) && !network_.empty(); ++k)
            deliver_next();

        unsigned holding = 0;
        for (const auto &[asker, status] : answers_) {
            const card &own = cards_[asker.first];
            const auto byte = own.bytes.find(MODULE_B);
            if (status == AGENT_OK && asked_.contains(asker) && byte != own.bytes.end() &&
                byte->second == asker.second && own.records.contains(MODULE_B))
                ++holding;
        }
        ASSERT_LE(holding, 1U) << "round " << round;
    }
    is_lost_ = nullptr;
    overtaking_ = nullptr;
    for (const std::uint32_t node : nodes)
        cards_[node].bytes.clear();
    pass(6000);
    EXPECT_EQ(holders(MODULE_B), slots{});
    ask(C, MODULE_B, PROCESS_SAP + 9);
    pass(0);
    EXPECT_EQ(told(C, PROCESS_SAP + 9), AGENT_OK);
}
