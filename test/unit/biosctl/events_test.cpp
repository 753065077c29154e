// biosctl events: the order, the table, JSON, and the built program in a chassis of files.
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "biosctl_chassis.h"
#include "events_report.h"
#include "text_report.h"

namespace
{

flash_event event(const std::string &time, std::uint64_t sequence, flash_event_kind kind = flash_event_kind::begun)
{
    return {.time = "2026-01-31T" + time + "Z", .slot = 5, .sequence = sequence, .pid = 41, .kind = kind};
}

// As the flash service writes them.
const std::string BEGUN =
    R"-({"time":"2026-01-31T12:00:00.250Z","slot":5,"flash":"primary","sequence":1,"pid":9,"event":"begun",)-"
    R"-("image_bytes":8388608,"version":"v3.5.0(09/17/12)"})-";
const std::string FAILED =
    R"({"time":"2026-01-31T12:00:02.000Z","slot":5,"flash":"primary","sequence":2,"pid":9,"event":"failed",)"
    R"("attempt":1,"sectors_erased":2,"bytes_written":0,"result":"0x40710009","duration_ms":1750})";
const std::string ENDED =
    R"({"time":"2026-01-31T12:01:10.000Z","slot":5,"flash":"primary","sequence":3,"pid":9,"event":"ended",)"
    R"("result":"0x40710009","duration_ms":70000})";
const std::string CUT_OFF =
    R"({"time":"2026-01-31T12:00:30.000Z","slot":27,"flash":"alternate","sequence":1,"pid":2,"event":"cut_off"})";

void append(const test_chassis &chassis, unsigned slot, const std::string &flash, const std::string &text)
{
    std::ofstream(chassis.flash_folder(slot, flash) + "/events", std::ios::app) << text;
}

void add_events(const test_chassis &chassis)
{
    append(chassis, 5, "primary", BEGUN + "\n" + FAILED + "\n" + ENDED + "\n");
    append(chassis, 27, "alternate", CUT_OFF + "\n");
}

std::vector<std::string> events_words(const test_chassis &chassis, const std::vector<std::string> &more = {})
{
    std::vector<std::string> words{"--dir", chassis.path(), "events"};
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

table shown_table(const flash_event &event)
{
    table events = events_table();
    add_event(events, event);
    return events;
}

std::string table_of(const flash_event &event)
{
    return text_of({shown_table(event)}, {});
}

} // namespace

TEST(EventsOrder, IsThatOfTimeOverAllFlashes)
{
    const auto events =
        in_order({{event("10:00:00.000", 1), event("10:00:02.000", 2)}, {event("10:00:01.000", 7)}});
    ASSERT_EQ(events.size(), 3U);
    EXPECT_EQ(events[0].sequence, 1U);
    EXPECT_EQ(events[1].sequence, 7U);
    EXPECT_EQ(events[2].sequence, 2U);
}

TEST(EventsOrder, OfOneFlashStandsAClockThatWasSetBack)
{
    const auto events = in_order({{event("10:00:00.000", 1), event("08:00:00.000", 2), event("08:00:01.000", 3)}});
    ASSERT_EQ(events.size(), 3U);
    EXPECT_EQ(events[1].sequence, 2U);
    EXPECT_EQ(events[2].sequence, 3U);
}

TEST(EventsTable, FitsEightyColumnsInAProgramming)
{
    flash_event verified = event("10:00:00.000", 1, flash_event_kind::verified);
    verified.slot = 232;
    verified.sectors_erased = 128;
    verified.bytes_written = 8 << 20;
    verified.duration_ms = 3599'000;
    const std::string table = table_of(verified);
    EXPECT_EQ(table, "TIME                  SLOT  FLASH    EVENT      TOOK   RESULT\n"
                     "2026-01-31T10:00:00Z  232   primary  verified   59:59  128 erased, 8 MiB written\n");
    EXPECT_EQ(text_of({shown_table(verified)}, {.columns = 80}), table);
}

TEST(EventsTable, TellsEachKindOfEvent)
{
    const auto tail = [](flash_event_kind kind) {
        flash_event one = event("10:00:00.000", 1, kind);
        one.attempt = 2;
        one.result = 0x40710021;
        one.duration_ms = 42;
        const std::string table = table_of(one);
        const std::string line = table.substr(table.find('\n') + 1);
        return line.substr(line.find("primary  ") + 9);
    };
    EXPECT_EQ(tail(flash_event_kind::attempt), "attempt 2  0.04s  -\n");
    EXPECT_EQ(tail(flash_event_kind::erased), "erased     0.04s  0 erased\n");
    EXPECT_EQ(tail(flash_event_kind::equal), "equal      0.04s  nothing to be changed\n");
    EXPECT_EQ(tail(flash_event_kind::failed), "failed     0.04s  0x40710021 write_protected\n");
    EXPECT_EQ(tail(flash_event_kind::refused), "refused    0.04s  0x40710021 write_protected\n");
    EXPECT_EQ(tail(flash_event_kind::ended), "ended      0.04s  0x40710021 write_protected\n");
    EXPECT_EQ(tail(flash_event_kind::cut_off), "cut off    0.04s  marked: not verified\n");
}

TEST(EventsTable, ColoursAFlashThatWasLeftHalfProgrammed)
{
    const std::string table =
        text_of({shown_table(event("10:00:00.000", 1, flash_event_kind::cut_off))}, {.colours = true});
    EXPECT_TRUE(table.ends_with("  \033[31mmarked: not verified\033[0m\n")) << table;
}

TEST(Events, AreATableForPeople)
{
    const test_chassis chassis;
    add_events(chassis);
    biosctl_run run(events_words(chassis));
    EXPECT_EQ(run.exit_code(), 0) << run.err();
    EXPECT_EQ(run.out(), "TIME                  SLOT  FLASH      EVENT      TOOK   RESULT\n"
                         "2026-01-31T12:00:00Z  5     primary    begun      -      8 MiB v3.5.0(09/17/12)\n"
                         "2026-01-31T12:00:02Z  5     primary    failed     1.75s  0x40710009 erase_failed\n"
                         "2026-01-31T12:00:30Z  27    alternate  cut off    -      marked: not verified\n"
                         "2026-01-31T12:01:10Z  5     primary    ended      01:10  0x40710009 erase_failed\n");
    EXPECT_EQ(run.err(), "");
}

TEST(Events, AreALineOfJsonEachForPrograms)
{
    const test_chassis chassis;
    add_events(chassis);
    biosctl_run run(events_words(chassis, {"5", "--last", "2", "--json"}));
    EXPECT_EQ(run.exit_code(), 0) << run.err();
    std::string named_failed = FAILED, named_ended = ENDED;
    named_failed.insert(named_failed.size() - 1, R"(,"name":"erase_failed")");
    named_ended.insert(named_ended.size() - 1, R"(,"name":"erase_failed")");
    EXPECT_EQ(run.out(), named_failed + "\n" + named_ended + "\n");
}

TEST(Events, AreThereAlsoWhenOnlyTheOlderFileIsOrNoneIsWanted)
{
    const test_chassis chassis;
    add_events(chassis);
    const std::string log = chassis.path() + "/slots/5/flash/primary/events";
    std::filesystem::rename(log, log + ".1");
    biosctl_run older(events_words(chassis, {"5", "--json"}));
    EXPECT_EQ(older.exit_code(), 0) << older.err();
    EXPECT_EQ(std::count(older.out().begin(), older.out().end(), '\n'), 3) << older.out();
    biosctl_run none(events_words(chassis, {"5", "--last", "0"}));
    EXPECT_EQ(none.exit_code(), 0) << none.err();
    EXPECT_EQ(none.out(), "TIME                  SLOT  FLASH    EVENT      TOOK   RESULT\n");
}

TEST(Events, OfNoFlashAreNone)
{
    const test_chassis chassis;
    biosctl_run run(events_words(chassis));
    EXPECT_EQ(run.exit_code(), 0) << run.err();
    EXPECT_EQ(run.out(), "no events: no flash was programmed yet\n");
    biosctl_run json(events_words(chassis, {"--json"}));
    EXPECT_EQ(json.exit_code(), 0);
    EXPECT_EQ(json.out(), "");
}

TEST(Events, WhatIsNoEventIsLeftOutAndNamed)
{
    const test_chassis chassis;
    append(chassis, 5, "primary", "\x1b[31m\n{}\n" + BEGUN + "\n" + FAILED.substr(0, 60));
    biosctl_run run(events_words(chassis, {"--json"}));
    EXPECT_EQ(run.exit_code(), 1);
    const std::string fault = R"({"slot":5,"flash":"primary","fault":)";
    EXPECT_TRUE(run.out().starts_with(fault + "\"2 lines are no events, the first is line 1 of the file\"}\n" +
                                      fault + "\"line 4 of the file, the last one, is not whole\"}\n" + BEGUN +
                                      "\n"))
        << run.out();
}

TEST(Events, AreFollowedUntilCtrlC)
{
    const test_chassis chassis;
    append(chassis, 5, "primary", BEGUN + "\n");
    biosctl_run run(events_words(chassis, {"--follow", "--json"}));
    ASSERT_TRUE(run.wait_for_output(BEGUN + "\n"));
    append(chassis, 5, "primary", FAILED.substr(0, 60));
    append(chassis, 5, "primary", FAILED.substr(60) + "\n");
    ASSERT_TRUE(run.wait_for_output("erase_failed\"}\n"));
    append(chassis, 27, "alternate", CUT_OFF + "\n");
    ASSERT_TRUE(run.wait_for_output(CUT_OFF + "\n"));
    run.signal(SIGINT);
    EXPECT_EQ(run.exit_code(), 0);
    EXPECT_EQ(run.err(), "");
    EXPECT_EQ(std::count(run.out().begin(), run.out().end(), '\n'), 3);
}

TEST(Events, AreFollowedThroughATurnedOverLog)
{
    const test_chassis chassis;
    append(chassis, 5, "primary", BEGUN + "\n");
    biosctl_run run(events_words(chassis, {"--follow", "--json"}));
    ASSERT_TRUE(run.wait_for_output(BEGUN + "\n"));
    const std::string log = chassis.path() + "/slots/5/flash/primary/events";
    std::filesystem::rename(log, log + ".1");
    append(chassis, 5, "primary", FAILED + "\n");
    ASSERT_TRUE(run.wait_for_output("erase_failed\"}\n"));
    run.signal(SIGINT);
    EXPECT_EQ(run.exit_code(), 0);
    EXPECT_EQ(std::count(run.out().begin(), run.out().end(), '\n'), 2);
}

TEST(Events, EndWithTheirReaderAndTheChassis)
{
    const test_chassis chassis;
    add_events(chassis);
    biosctl_run unread(events_words(chassis, {"--follow"}));
    ASSERT_TRUE(unread.wait_for_output("ended"));
    unread.close_output();
    EXPECT_EQ(unread.exit_code(), 0);
    EXPECT_EQ(unread.err(), "");
    biosctl_run orphan(events_words(chassis, {"--follow"}));
    ASSERT_TRUE(orphan.wait_for_output("ended"));
    std::filesystem::remove_all(chassis.path());
    EXPECT_EQ(orphan.exit_code(), 3);
    EXPECT_NE(orphan.err().find("the chassis has gone"), std::string::npos) << orphan.err();
}

TEST(Events, WhatIsNotThereAndWhatIsNotUnderstood)
{
    const test_chassis chassis;
    biosctl_run missing(events_words(chassis, {"7"}));
    EXPECT_EQ(missing.exit_code(), 3);
    for (const char *last : {"-1", "x", "", "1000001"}) {
        biosctl_run run(events_words(chassis, {std::string("--last=") + last}));
        EXPECT_EQ(run.exit_code(), 64) << last;
    }
}

TEST(EventsTable, NamesWhoAskedForWhat)
{
    flash_event event{.time = "2026-01-31T23:59:59.123Z",
                      .slot = 3,
                      .sequence = 1,
                      .image_bytes = 1 << 20,
                      .version = "v3.5.0(09/17/12)",
                      .old_version = "v3.1.0(02/11/11)",
                      .sha256 = "0123456789abcdef" + std::string(48, 'a'),
                      .user = "ops",
                      .host = "desk"};
    table events = events_table();
    add_event(events, event);
    EXPECT_NE(text_of({events}, {})
                  .find("1 MiB v3.5.0(09/17/12) over v3.1.0(02/11/11), by ops@desk, "
                        "SHA-256 0123456789abcdef\n"),
              std::string::npos)
        << text_of({events}, {});
    const auto json = event_json(event);
    EXPECT_EQ(json["user"], "ops");
    EXPECT_EQ(json["old_version"], "v3.1.0(02/11/11)");
    EXPECT_EQ(json["sha256"], event.sha256);
}

TEST(EventsFaults, AreAFailureThatNamesEach)
{
    const outcome told = report_faults({{3, 0, "line 2 was changed"}, {5, 1, "line 9 was changed"}}, {});
    EXPECT_EQ(told.exit, EXIT_FAILED);
    EXPECT_EQ(told.headline.plain(), "the event log is not whole");
    ASSERT_EQ(told.hints.size(), 3U);
    EXPECT_EQ(told.hints[0].text.plain(), "slot 3, primary flash: line 2 was changed");
    EXPECT_EQ(told.hints[1].text.plain(), "slot 5, alternate flash: line 9 was changed");
    EXPECT_EQ(fault_json({5, 1, "x"}).dump(), R"({"slot":5,"flash":"alternate","fault":"x"})");
}
