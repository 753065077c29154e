// What agents tell each other of their cards, where these have no common inventory.
#include <fstream>

#include <gtest/gtest.h>

#include "agent_messages.h"
#include "card_roster.h"
#include "flash_fixture.h"
#include "inventory_value.h"
#include "sysmgr.h"

namespace
{

constexpr std::uint32_t SUPERVISOR = 1;
constexpr std::uint32_t LINECARD = 2;
constexpr std::uint32_t NONE = 0;
constexpr std::uint32_t ACTIVE = SYSMGR_SUP_STATE_ACTIVE;
constexpr std::uint32_t STANDBY = SYSMGR_SUP_STATE_STANDBY;

constexpr std::uint32_t node_of(std::uint32_t slot, std::uint32_t kind)
{
    return slot * 256 + (kind == SUPERVISOR ? 1 : 2);
}

class CardRoster : public chassis_flash_fixture // the own card is in slot 3
{
protected:
    void SetUp() override
    {
        chassis_flash_fixture::SetUp();
        std::filesystem::create_directories(dir + "/inventory/3");
        put("kind", SUPERVISOR);
        put("card_id", 90);
    }
    void put(const std::string &name, std::uint32_t value) const
    {
        std::ofstream(dir + "/inventory/3/" + name) << value << "\n";
    }
    static agent_module_t card(std::uint32_t slot, std::uint32_t kind, std::uint32_t state = NONE)
    {
        return {be32::of(slot), be32::of(kind), be32::of(64), be32::of(state)};
    }
    void take(const agent_module_t &told)
    {
        take_from({node_of(told.slot.load(), told.kind.load()), AGENT_SAP}, told);
    }
    void take_from(mts_address_t from, const agent_module_t &told) { roster_.take(from, &told, sizeof told); }
    // A second passes, in which other cards tell of themselves.
    void pass(unsigned seconds, const std::vector<agent_module_t> &others = {})
    {
        for (unsigned second = 0; second < seconds; ++second) {
            now_us_ += ROSTER_TELL_US;
            for (const agent_module_t &other : others)
                take(other);
            roster_.tick();
        }
    }
    static std::uint32_t state_of(unsigned slot) { return inventory_value(slot, "sup_state"); }

    std::int64_t now_us_ = 1;
    std::vector<std::uint32_t> told_; // own states
    card_roster roster_ = of(redundancy_rule::of_the_agents);

    card_roster of(redundancy_rule rule)
    {
        return {rule,
                [this](const agent_module_t &own) {
                    EXPECT_EQ(own.slot.load(), 3U);
                    EXPECT_EQ(own.kind.load(), SUPERVISOR);
                    EXPECT_EQ(own.card_id.load(), 90U);
                    told_.push_back(own.sup_state.load());
                },
                [this] { return now_us_; }};
    }
};

} // namespace

TEST_F(CardRoster, KeepsWhatCardsTellOfThemselves)
{
    take(card(5, LINECARD));
    EXPECT_EQ(inventory_value(5, "kind"), LINECARD);
    EXPECT_EQ(inventory_value(5, "card_id"), 64U);
    take(card(7, SUPERVISOR, ACTIVE));
    EXPECT_EQ(state_of(7), ACTIVE);
    take(card(7, SUPERVISOR, STANDBY));
    EXPECT_EQ(state_of(7), STANDBY);
}

TEST_F(CardRoster, KeepsNothingThatOthersTell)
{
    take_from({node_of(5, LINECARD), AGENT_SAP + 1}, card(5, LINECARD));
    take_from({node_of(6, LINECARD), AGENT_SAP}, card(5, LINECARD));
    take_from({node_of(5, LINECARD), AGENT_SAP}, card(5, SUPERVISOR));
    take(card(0, LINECARD));
    take(card(233, LINECARD));
    take(card(5, NONE));
    take(card(5, 256));
    take(card(3, LINECARD));
    agent_module_t other = card(5, LINECARD);
    other.card_id = be32::of(65536);
    take(other);
    other = card(5, LINECARD);
    roster_.take({node_of(5, LINECARD), AGENT_SAP}, &other, sizeof other - 1);
    EXPECT_FALSE(inventory_has(5, "kind"));
    EXPECT_FALSE(std::filesystem::exists(dir + "/inventory/0"));
    EXPECT_FALSE(std::filesystem::exists(dir + "/inventory/233"));
    EXPECT_EQ(inventory_value(3, "kind"), SUPERVISOR);
}

TEST_F(CardRoster, TellsOfTheOwnCardEachSecond)
{
    EXPECT_EQ(roster_.wait_limit_us(), 0);
    pass(3);
    EXPECT_EQ(told_.size(), 3U);
    EXPECT_EQ(roster_.wait_limit_us(), ROSTER_TELL_US);
    now_us_ += ROSTER_TELL_US - 1;
    roster_.tick();
    EXPECT_EQ(told_.size(), 3U);
}

TEST_F(CardRoster, ACardThatIsSilentStaysAndIsNoSupervisor)
{
    const agent_module_t other = card(7, SUPERVISOR, ACTIVE);
    pass(10, {other});
    EXPECT_EQ(state_of(7), ACTIVE);
    pass(4);
    EXPECT_EQ(state_of(7), ACTIVE);
    pass(1);
    EXPECT_EQ(state_of(7), NONE);
    EXPECT_EQ(inventory_value(7, "kind"), SUPERVISOR);
    pass(1, {other});
    EXPECT_EQ(state_of(7), ACTIVE);
}

TEST_F(CardRoster, WithoutAnActiveSupervisorTheLowestOneBecomesActive)
{
    pass(4, {card(7, SUPERVISOR, STANDBY), card(1, LINECARD)});
    EXPECT_EQ(state_of(3), STANDBY) << "it listens first";
    pass(1, {card(7, SUPERVISOR, STANDBY), card(1, LINECARD)});
    EXPECT_EQ(state_of(3), ACTIVE);
    EXPECT_EQ(told_.back(), ACTIVE);
}

TEST_F(CardRoster, AnActiveSupervisorStaysSo)
{
    pass(20, {card(7, SUPERVISOR, ACTIVE)});
    EXPECT_EQ(state_of(3), STANDBY) << "though its slot is lower";
    pass(4);
    EXPECT_EQ(state_of(3), STANDBY);
    pass(1);
    EXPECT_EQ(state_of(3), ACTIVE) << "the other one is gone";
    pass(5, {card(7, SUPERVISOR, STANDBY)});
    EXPECT_EQ(state_of(3), ACTIVE);
}

TEST_F(CardRoster, TheOneInTheHigherSlotBecomesActiveOnlyWithoutTheLowerOne)
{
    pass(20, {card(1, SUPERVISOR, STANDBY)});
    EXPECT_EQ(state_of(3), STANDBY);
    pass(5);
    EXPECT_EQ(state_of(3), ACTIVE);
}

TEST_F(CardRoster, OfTwoThatAreActiveTheHigherOneStepsBack)
{
    put("sup_state", ACTIVE);
    pass(1, {card(7, SUPERVISOR, ACTIVE)});
    EXPECT_EQ(state_of(3), ACTIVE);
    pass(1, {card(1, SUPERVISOR, ACTIVE)});
    EXPECT_EQ(state_of(3), STANDBY);
}

TEST_F(CardRoster, TheSystemsManagerHasTheLastWord)
{
    roster_ = of(redundancy_rule::of_the_system);
    put("sup_state", STANDBY);
    pass(20);
    EXPECT_EQ(state_of(3), STANDBY);
    put("sup_state", ACTIVE);
    pass(5, {card(1, SUPERVISOR, ACTIVE)});
    EXPECT_EQ(state_of(3), ACTIVE);
}

TEST_F(CardRoster, ALineCardHasNoState)
{
    roster_ = {redundancy_rule::of_the_agents, [](const agent_module_t &) {}, [this] { return now_us_; }};
    put("kind", LINECARD);
    pass(20);
    EXPECT_EQ(state_of(3), NONE);
}
