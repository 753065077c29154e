// The chain of event lines: what is changed, taken out or put in shows.
#include <algorithm>

#include "flash_event_chain.h"
#include "flash_event_log.h"
#include "flash_fixture.h"

namespace
{

class EventChain : public chassis_flash_fixture
{
protected:
    void SetUp() override
    {
        chassis_flash_fixture::SetUp();
        create_flash();
    }
    static void append(unsigned count)
    {
        for (unsigned k = 0; k < count; ++k)
            flash_event_append(open_flash_folder(TEST_SLOT, 0),
                               {.slot = TEST_SLOT, .kind = flash_event_kind::failed, .attempt = k});
    }
    static std::vector<chain_break> breaks()
    {
        return flash_event_chain_breaks(flash_event_history_of(TEST_SLOT, 0).events);
    }
    std::vector<std::string> lines() const
    {
        std::vector<std::string> all;
        std::istringstream text(text_of_flash_file("events"));
        for (std::string line; std::getline(text, line);)
            all.push_back(line);
        return all;
    }
    void store(const std::vector<std::string> &all) const
    {
        std::string text;
        for (const std::string &line : all)
            text += line + "\n";
        write_flash_file("events", text);
    }
};

// What an agent of before has written.
std::string without_chain(const std::string &line)
{
    flash_event event = *flash_event_parse(line);
    event.chain.clear();
    const std::string text = flash_event_format(event);
    return text.substr(0, text.size() - 1);
}

} // namespace

TEST_F(EventChain, LinesThatWereAppendedAreWhole)
{
    append(5);
    EXPECT_EQ(breaks(), std::vector<chain_break>{});
    for (const flash_event &event : flash_event_history_of(TEST_SLOT, 0).events)
        EXPECT_EQ(event.chain.size(), 64U);
}

// The digest of the line's text, computed by hand: sha256sum of the line without the member, with its newline.
TEST(EventChainLink, IsTheDigestOfTheLinkBeforeAndTheLine)
{
    const flash_event event = {.time = "2026-01-31T23:59:59.123Z", .slot = 3, .sequence = 1, .pid = 41};
    EXPECT_EQ(flash_event_format(event), R"({"time":"2026-01-31T23:59:59.123Z","slot":3,"flash":"primary",)"
                                         R"("sequence":1,"pid":41,"event":"begun"})"
                                         "\n");
    EXPECT_EQ(flash_event_chain("", event), "1685d3fbd5695bf204529a4efab96d0b5aeacfeb09a980c13519f6d0d9c87ec7");
    EXPECT_EQ(flash_event_chain(std::string(64, 'a'), event),
              "3f5ffee161fff4686221f547e156d06c0f1af3b86a1cb7fc384d1e906865cf21");
}

TEST_F(EventChain, ALineThatIsTakenOutShows)
{
    append(5);
    std::vector<std::string> all = lines();
    all.erase(all.begin() + 1, all.begin() + 3);
    store(all);
    EXPECT_EQ(breaks(), (std::vector<chain_break>{{4, chain_fault::missing, 2}}));
}

TEST_F(EventChain, ALineThatIsChangedShows)
{
    append(5);
    std::vector<std::string> all = lines();
    const std::size_t place = all[2].find("\"attempt\":2");
    ASSERT_NE(place, std::string::npos);
    all[2].replace(place, 11, "\"attempt\":7");
    store(all);
    EXPECT_EQ(breaks(), (std::vector<chain_break>{{3, chain_fault::changed, 0}}));
}

TEST_F(EventChain, AFirstLineThatIsChangedShows)
{
    append(2);
    std::vector<std::string> all = lines();
    all[0].replace(all[0].find("\"attempt\":0"), 11, "\"attempt\":7");
    store(all);
    EXPECT_EQ(breaks(), (std::vector<chain_break>{{1, chain_fault::changed, 0}}));
}

TEST_F(EventChain, ALineThatIsReplacedByGarbageIsMissing)
{
    append(3);
    std::vector<std::string> all = lines();
    all[1] = "nothing";
    store(all);
    EXPECT_EQ(breaks(), (std::vector<chain_break>{{3, chain_fault::missing, 1}}));
}

TEST_F(EventChain, ALinkThatIsTakenAwayShows)
{
    append(3);
    std::vector<std::string> all = lines();
    all[1] = without_chain(all[1]);
    store(all);
    EXPECT_EQ(breaks().front(), (chain_break{2, chain_fault::changed, 0}));
}

TEST_F(EventChain, LinesFromBeforeThereWasOneAreShownAndTheChainBeginsBehindThem)
{
    append(3);
    std::vector<std::string> all = lines();
    std::ranges::transform(all, all.begin(), without_chain);
    store(all);
    EXPECT_EQ(breaks(), std::vector<chain_break>{});
    append(2);
    EXPECT_EQ(flash_event_history_of(TEST_SLOT, 0).events.size(), 5U);
    EXPECT_EQ(breaks(), std::vector<chain_break>{});
    all = lines();
    all.erase(all.begin() + 3);
    store(all);
    EXPECT_EQ(breaks(), (std::vector<chain_break>{{5, chain_fault::missing, 1}}));
}

TEST_F(EventChain, GoesOnWhenTheLogIsTurnedOver)
{
    constexpr unsigned MORE_THAN_FIT = 20'000;
    for (unsigned k = 0; k < MORE_THAN_FIT && !std::filesystem::exists(flash_file("events.1")); ++k)
        append(1);
    append(3);
    ASSERT_GE(lines().size(), 3U);
    EXPECT_EQ(breaks(), std::vector<chain_break>{});
}

TEST_F(EventChain, GoesOnBehindALineThatWasCutOff)
{
    append(2);
    const std::string text = text_of_flash_file("events");
    write_flash_file("events", text.substr(0, text.size() - 30));
    append(1);
    EXPECT_EQ(breaks(), std::vector<chain_break>{});
    EXPECT_EQ(flash_event_last_of(TEST_SLOT, 0)->sequence, 2U);
}

TEST_F(EventChain, TheLastEventIsFoundWithoutReadingAll)
{
    EXPECT_FALSE(flash_event_last_of(TEST_SLOT, 0));
    append(100);
    const auto last = flash_event_last_of(TEST_SLOT, 0);
    ASSERT_TRUE(last);
    EXPECT_EQ(*last, flash_event_history_of(TEST_SLOT, 0).events.back());
    std::filesystem::rename(flash_file("events"), flash_file("events.1"));
    EXPECT_EQ(flash_event_last_of(TEST_SLOT, 0)->sequence, 100U);
}

TEST(FlashEventLine, TellsWhoAskedForWhat)
{
    flash_event event = {.time = "2026-01-31T23:59:59.123Z",
                         .slot = 3,
                         .sequence = 17,
                         .pid = 41,
                         .image_bytes = 8,
                         .version = "v3.5.0(09/17/12)"};
    event.old_version = "v3.1.0(02/11/11)";
    event.sha256 = std::string(64, 'a');
    event.user = "op\"s";
    event.host = "desk\n1";
    event.chain = std::string(64, 'b');
    const std::string line = flash_event_format(event);
    EXPECT_EQ(line, R"x({"time":"2026-01-31T23:59:59.123Z","slot":3,"flash":"primary","sequence":17,"pid":41,)x"
                    R"x("event":"begun","image_bytes":8,"version":"v3.5.0(09/17/12)",)x"
                    R"x("old_version":"v3.1.0(02/11/11)","sha256":")x" +
                        std::string(64, 'a') + R"x(","user":"ops","host":"desk1","chain":")x" +
                        std::string(64, 'b') + "\"}\n");
    const auto again = flash_event_parse(line.substr(0, line.size() - 1));
    ASSERT_TRUE(again);
    EXPECT_EQ(again->user, "ops");
    EXPECT_EQ(again->host, "desk1");
    EXPECT_EQ(again->old_version, "v3.1.0(02/11/11)");
    EXPECT_EQ(again->sha256, event.sha256);
    EXPECT_EQ(again->chain, event.chain);
}

TEST(FlashEventLine, DigestsAreHexadecimalOrNone)
{
    flash_event event = {.time = "2026-01-31T23:59:59.123Z", .slot = 3, .sequence = 1, .pid = 41};
    const std::string line = flash_event_format(event);
    const std::string body = line.substr(0, line.size() - 2);
    EXPECT_TRUE(flash_event_parse(body + R"(,"chain":")" + std::string(64, 'f') + "\"}"));
    EXPECT_FALSE(flash_event_parse(body + R"(,"chain":")" + std::string(63, 'f') + "\"}"));
    EXPECT_FALSE(flash_event_parse(body + R"(,"chain":")" + std::string(64, 'F') + "\"}"));
    EXPECT_FALSE(flash_event_parse(body + R"(,"chain":""})"));
    event.chain = "no digest";
    EXPECT_EQ(flash_event_format(event), line);
}
