// Events that find no room: they are counted, and told as soon as there is room again.
#include "flash_fixture.h"

#include "file_size_limit.h"
#include "flash_event_chain.h"
#include "flash_event_faults.h"
#include "flash_event_log.h"
#include "flash_programming_events.h"

namespace
{

class LostEvents : public chassis_flash_fixture
{
protected:
    void SetUp() override
    {
        chassis_flash_fixture::SetUp();
        create_flash();
    }
    static std::optional<flash_event_loss> append(flash_event_kind kind = flash_event_kind::begun)
    {
        return flash_event_append(open_flash_folder(TEST_SLOT, 0), {.slot = TEST_SLOT, .kind = kind});
    }
    static std::vector<flash_event> events() { return flash_event_history_of(TEST_SLOT, 0).events; }
    static std::string story()
    {
        std::string text;
        for (const flash_event &event : events())
            text += (text.empty() ? "" : " ") + std::string(flash_event_name(event.kind));
        return text;
    }
    std::uint64_t log_bytes() const { return std::filesystem::file_size(flash_file("events")); }
    std::string syslog() const
    {
        std::ifstream file(dir + "/" + chassis_slot_path(TEST_SLOT, "syslog"));
        return rest_of(file);
    }
};

} // namespace

TEST(LostEventsLine, HasOneForm)
{
    const lost_events lost = {.after = 17, .count = 3, .is_full = true};
    EXPECT_EQ(lost_events_format(lost), "00000000000000000017 0000000003 full \n");
    EXPECT_EQ(lost_events_parse("00000000000000000017 0000000003 full \n"), lost);
    EXPECT_EQ(lost_events_format({.after = 1, .count = ~0ULL}), "00000000000000000001 9999999999 other\n");
    for (const char *text : {"", "\n", "17 3 full\n", "00000000000000000017 0000000003 full ",
                             "00000000000000000017 0000000003 fuel \n", "-0000000000000000017 0000000003 full \n"})
        EXPECT_EQ(lost_events_parse(text), lost_events()) << text;
}

TEST_F(LostEvents, AreCountedAndToldByTheNextLine)
{
    EXPECT_FALSE(append());
    EXPECT_FALSE(append());
    {
        const file_size_limit full(log_bytes());
        for (std::uint64_t count = 1; count <= 3; ++count) {
            const auto loss = append(flash_event_kind::failed);
            ASSERT_TRUE(loss);
            EXPECT_EQ(loss->lost, (lost_events{.after = 2, .count = count, .is_full = true}));
            EXPECT_EQ(loss->error, EFBIG);
        }
        EXPECT_EQ(story(), "begun begun");
        EXPECT_EQ(text_of_flash_file("lost_events"), "00000000000000000002 0000000003 full \n");
        EXPECT_EQ(flash_events_lost(TEST_SLOT, 0).count, 3U);
    }
    EXPECT_FALSE(append(flash_event_kind::ended));
    EXPECT_EQ(story(), "begun begun lost ended");
    EXPECT_EQ(events()[2].lost, 3U);
    EXPECT_EQ(events()[2].reason, "disk full");
    EXPECT_EQ(events()[2].sequence, 3U);
    EXPECT_EQ(flash_event_chain_breaks(events()), std::vector<chain_break>{});
    EXPECT_EQ(flash_event_history_of(TEST_SLOT, 0).totals.lost, 3U);
    EXPECT_EQ(flash_events_lost(TEST_SLOT, 0).count, 0U);
    EXPECT_FALSE(append());
    EXPECT_EQ(story(), "begun begun lost ended begun") << "they are told once";
}

TEST_F(LostEvents, TheLineThatTellsOfThemIsAJsonObjectToo)
{
    const flash_event lost = {.time = "2026-01-31T23:59:59.123Z",
                              .slot = 3,
                              .sequence = 18,
                              .pid = 41,
                              .kind = flash_event_kind::lost,
                              .lost = 3,
                              .reason = "disk full"};
    const std::string line = R"({"time":"2026-01-31T23:59:59.123Z","slot":3,"flash":"primary","sequence":18,)"
                             R"("pid":41,"event":"lost","lost":3,"reason":"disk full"})";
    EXPECT_EQ(flash_event_format(lost), line + "\n");
    EXPECT_EQ(flash_event_parse(line), lost);
}

// The line of them itself may find room when the one behind it does not.
TEST_F(LostEvents, AreCountedAnewBehindTheLineThatTellsOfThem)
{
    ASSERT_FALSE(append());
    {
        const file_size_limit full(log_bytes());
        ASSERT_TRUE(append());
    }
    {
        const file_size_limit almost_full(log_bytes() + 250);
        const auto loss = append();
        ASSERT_TRUE(loss);
        EXPECT_EQ(loss->lost, (lost_events{.after = 2, .count = 1, .is_full = true}));
    }
    EXPECT_EQ(story(), "begun lost");
    ASSERT_FALSE(append());
    EXPECT_EQ(story(), "begun lost lost begun");
}

TEST_F(LostEvents, AreKnownToTheirProcessWhenNoFileCanTakeThem)
{
    ASSERT_FALSE(append());
    std::filesystem::remove(flash_file("lost_events"));
    std::filesystem::create_directory(flash_file("lost_events"));
    {
        const file_size_limit full(log_bytes());
        ASSERT_TRUE(append());
        EXPECT_EQ(append()->lost.count, 2U);
    }
    ASSERT_FALSE(append());
    EXPECT_EQ(story(), "begun lost begun");
    EXPECT_EQ(events()[1].lost, 2U);
}

TEST_F(LostEvents, OfALogThatIsNoFileAreNoWantOfRoom)
{
    std::filesystem::create_directory(flash_file("events"));
    const auto loss = append();
    ASSERT_TRUE(loss);
    EXPECT_FALSE(loss->lost.is_full);
    EXPECT_EQ(flash_events_lost(TEST_SLOT, 0).count, 1U);
    std::filesystem::remove(flash_file("events"));
    ASSERT_FALSE(append());
    EXPECT_EQ(events().front().reason, "write failed");
}

// The last line that could be written tells of an end, but more was begun since.
TEST_F(LostEvents, DoNotHideThatAProgrammingWasCutOff)
{
    ASSERT_FALSE(append(flash_event_kind::ended));
    {
        const file_size_limit full(log_bytes());
        ASSERT_TRUE(append(flash_event_kind::begun));
    }
    flash_found_marked(0);
    EXPECT_EQ(story(), "ended lost cut_off");
}

TEST_F(LostEvents, AreToldToTheSyslogAtOnce)
{
    ASSERT_FALSE(append());
    std::filesystem::remove(flash_file("events"));
    std::filesystem::create_directory(flash_file("events"));
    (void)flash_attempt_refused(0, 1, static_cast<std::int32_t>(0x4071000a));
    EXPECT_NE(syslog().find("primary flash: event \"refused\", result 0x4071000a not written: "), std::string::npos)
        << syslog();
    EXPECT_NE(syslog().find("; 1 not written behind event 0"), std::string::npos) << syslog();
}

// What a programming may have to tell has its room from the beginning.
TEST_F(LostEvents, AreNoneOfAProgrammingThatFoundRoomAtItsBeginning)
{
    ASSERT_FALSE(append());
    struct stat status = {};
    ASSERT_EQ(::stat(flash_file("events").c_str(), &status), 0);
    EXPECT_GE(static_cast<std::uint64_t>(status.st_blocks) * 512, 16U * 1024);
    EXPECT_LT(status.st_size, 1024);
}
