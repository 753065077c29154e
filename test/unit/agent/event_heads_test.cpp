// What agents tell each other of the heads of their event logs.
#include <gtest/gtest.h>

#include "agent_requests.h"
#include "event_heads.h"
#include "flash_fixture.h"
#include "mts_tools.h"
#include "wire_bytes.h"

using namespace wire;

namespace
{

class EventHeads : public chassis_flash_fixture
{
protected:
    void SetUp() override
    {
        chassis_flash_fixture::SetUp();
        insert(3, 1);
        insert(4, 1);
        insert(5, 2);
    }
    void insert(unsigned slot, unsigned kind) const
    {
        std::filesystem::create_directories(dir + "/inventory/" + std::to_string(slot));
        std::filesystem::create_directories(dir + "/slots/" + std::to_string(slot));
        std::ofstream(dir + "/inventory/" + std::to_string(slot) + "/kind") << kind << "\n";
    }
    static void append()
    {
        flash_event_append(open_flash_folder(TEST_SLOT, 0), {.slot = TEST_SLOT, .kind = flash_event_kind::begun});
    }
    void tick_after(std::int64_t us)
    {
        now_us_ += us;
        teller_.tick();
    }

    std::int64_t now_us_ = 1;
    std::vector<std::pair<std::uint32_t, std::uint64_t>> sent_; // node and sequence
    head_teller teller_{[this](mts_address_t to, const agent_event_head_t &head) {
                            EXPECT_EQ(to.sap, AGENT_SAP);
                            EXPECT_EQ(head.slot.load(), 3U);
                            sent_.emplace_back(to.node, head.sequence.load());
                        },
                        [this] { return now_us_; }};
};

constexpr std::uint32_t AGENT_5 = 5 * 256 + 2;

bytes head_of(std::uint32_t slot, std::uint32_t sequence, std::uint8_t last = 7)
{
    bytes head = words({slot, 0, 0, sequence}) + bytes(32);
    head.back() = last;
    return head;
}

void take(mts_address_t from, const bytes &head)
{
    take_event_head(from, head.data(), head.size());
}

bytes known_head(std::uint32_t slot)
{
    return answer_to(4863, words({slot, 0}))->payload();
}

} // namespace

TEST_F(EventHeads, AreToldToTheOtherSupervisorsWhenTheLogHasChanged)
{
    create_flash();
    tick_after(0);
    EXPECT_TRUE(sent_.empty()) << "there is no log yet";
    append();
    tick_after(HEAD_LOOK_US - 1);
    EXPECT_TRUE(sent_.empty()) << "too early for another look";
    tick_after(1);
    using told = std::vector<std::pair<std::uint32_t, std::uint64_t>>;
    EXPECT_EQ(sent_, (told{{4 * 256 + 1, 1}}));
    tick_after(HEAD_LOOK_US);
    EXPECT_EQ(sent_.size(), 1U);
    append();
    tick_after(HEAD_LOOK_US);
    EXPECT_EQ(sent_.back(), (std::pair<std::uint32_t, std::uint64_t>{4 * 256 + 1, 2}));
    EXPECT_EQ(teller_.wait_limit_us(), HEAD_LOOK_US);
}

TEST_F(EventHeads, AreToldAgainBecauseMessagesMayBeLost)
{
    create_flash();
    append();
    tick_after(0);
    tick_after(HEAD_AGAIN_US);
    EXPECT_EQ(sent_.size(), 2U);
}

TEST_F(EventHeads, AreKeptAndTheHighestCounts)
{
    EXPECT_EQ(known_head(5), bytes());
    take({AGENT_5, 1011}, head_of(5, 10));
    EXPECT_EQ(known_head(5), head_of(5, 10));
    take({AGENT_5, 1011}, head_of(5, 10, 8));
    take({AGENT_5, 1011}, head_of(5, 9, 8));
    EXPECT_EQ(known_head(5), head_of(5, 10)) << "a log does not become shorter";
    take({AGENT_5, 1011}, head_of(5, 11, 8));
    EXPECT_EQ(known_head(5), head_of(5, 11, 8));
    EXPECT_EQ(load_event_heads().size(), 1U);
}

TEST_F(EventHeads, AreBelievedOfTheCardsOwnAgentOnly)
{
    take({AGENT_5, 1010}, head_of(5, 10));
    take({4 * 256 + 1, 1011}, head_of(5, 10));
    take({3 * 256 + 1, 1011}, head_of(3, 10)); // its own
    take({AGENT_5, 1011}, head_of(5, 0));
    take({AGENT_5, 1011}, head_of(5, 10) + bytes(1));
    take({AGENT_5, 1011}, words({5, 2, 0, 10}) + bytes(32));
    take({AGENT_5, 1011}, words({5, 0, 0xffffffff, 10}) + bytes(32));
    EXPECT_TRUE(load_event_heads().empty());
}

TEST_F(EventHeads, LinesThatAreNoneArePassedOver)
{
    const std::string good = "5 0 10 " + std::string(64, 'a') + "\n";
    EXPECT_EQ(event_heads_format(event_heads_parse("x\n0 0 1 " + std::string(64, 'a') + "\n5 2 1 " +
                                                   std::string(64, 'a') + "\n5 0 1 abc\n" + good)),
              good);
}

TEST_F(EventHeads, ARequestOfAnotherLengthIsRefused)
{
    EXPECT_EQ(answer_to(4863, bytes(7))->status(), 0x40720001U);
    EXPECT_FALSE(answer_to(4862, bytes(48))) << "that one is no request";
}
