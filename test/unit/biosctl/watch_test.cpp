// biosctl watch: what the facts say, the table at several widths, JSON, and the built program in a chassis of
// files.
#include <set>
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "bios_flash.h"
#include "bios_results.h"
#include "biosctl_chassis.h"
#include "modlock.h"
#include "watch_report.h"

namespace
{

constexpr const char *NOW = "2026-01-31T12:00:30Z";
constexpr const char *LOCKED_AT = "2026-01-31T12:00:00Z";
constexpr const char *EARLIER = "2026-01-31T11:00:00Z";
constexpr const char *LATER = "2026-01-31T12:00:05Z";

watched_card card(unsigned slot, const std::string &role = "none")
{
    watched_card card;
    card.slot = slot;
    card.role = role;
    card.serves = true;
    return card;
}

flash_progress_line line(bios_programming_phase phase, std::uint32_t percent, std::uint32_t attempt,
                         const std::string &since)
{
    return {phase, percent, attempt, 41, since};
}

// An active supervisor in slot 27, a standby in 28, a line card in 5.
watch_facts idle_facts()
{
    watch_facts facts;
    facts.now = NOW;
    facts.cards = {card(5), card(27, "active"), card(28, "standby")};
    return facts;
}

chassis_module_lock_holder lock(std::uint16_t node_id, unsigned slot, std::uint32_t reason = BIOS_ERR_BUSY,
                                const std::string &since = LOCKED_AT)
{
    return {node_id, slot, 9, 129, reason, since};
}

constexpr std::uint16_t NODE_5 = 0x502;
constexpr std::uint16_t NODE_27 = 0x1b01;
constexpr std::uint16_t NODE_28 = 0x1c01;

// The active supervisor has the standby program itself.
watch_facts forwarded_facts()
{
    watch_facts facts = idle_facts();
    facts.locks = {lock(NODE_27, 27), lock(NODE_28, 27)};
    facts.cards[2].flashes[0] = {.marked = true, .has_writer = true, .last = line(BIOS_PHASE_WRITE, 43, 2, LATER)};
    facts.results[28] = {BIOS_FLASH_ERR_PROTECTED, EARLIER, 27};
    return facts;
}

watch_row row_of(const watch_facts &facts, unsigned slot)
{
    for (const watch_row &row : make_snapshot(facts).rows) {
        if (row.slot == slot)
            return row;
    }
    throw std::runtime_error("no such row");
}

std::vector<std::string> lines(const watch_facts &facts, std::optional<watch_space> space = std::nullopt)
{
    std::vector<std::string> plain;
    for (const styled_text &line : watch_lines(make_snapshot(facts), space))
        plain.push_back(line.plain());
    return plain;
}

// "CELL  ": cells side by side, each padded to its column's width.
std::string row(const std::vector<std::pair<std::string, std::size_t>> &cells)
{
    std::string text;
    for (const auto &[cell, width] : cells)
        text += cell + std::string(width > cell.size() ? width - cell.size() : 0, ' ');
    return text;
}

} // namespace

// Snapshot

TEST(WatchSnapshot, IdleCards)
{
    const watch_snapshot snapshot = make_snapshot(idle_facts());
    ASSERT_EQ(snapshot.rows.size(), 3U);
    for (const watch_row &row : snapshot.rows) {
        EXPECT_EQ(row.state, watch_state::idle);
        EXPECT_FALSE(row.progress || row.lock || row.result || row.programs_module);
    }
    EXPECT_EQ(snapshot.time, NOW);
}

TEST(WatchSnapshot, ForwardedProgramming)
{
    const watch_row target = row_of(forwarded_facts(), 28);
    EXPECT_EQ(target.state, watch_state::being_programmed);
    EXPECT_EQ(target.progress, (watched_progress{0, BIOS_PHASE_WRITE, 43, 2, LATER, true}));
    EXPECT_EQ(target.lock, (watched_lock{27, 9, BIOS_ERR_BUSY, LOCKED_AT}));
    EXPECT_EQ(target.result->code, BIOS_FLASH_ERR_PROTECTED);
    const watch_row active = row_of(forwarded_facts(), 27);
    EXPECT_EQ(active.state, watch_state::programs_another);
    EXPECT_EQ(active.programs_module, 28U);
    EXPECT_EQ(active.lock->slot, 27U);
    EXPECT_EQ(row_of(forwarded_facts(), 5).state, watch_state::idle);
}

TEST(WatchSnapshot, OwnCardIsProgrammed)
{
    watch_facts facts = idle_facts();
    facts.locks = {lock(NODE_27, 27)};
    EXPECT_EQ(row_of(facts, 27).state, watch_state::being_programmed);
    EXPECT_EQ(row_of(facts, 27).progress, std::nullopt) << "the image is unpacked before the flash is touched";
    facts.cards[1].flashes[1] = {.has_writer = true, .last = line(BIOS_PHASE_ERASE, 3, 1, LATER)};
    EXPECT_EQ(row_of(facts, 27).progress->instance, 1U);
}

TEST(WatchSnapshot, WithoutALockTheWriterTells)
{
    watch_facts facts = forwarded_facts();
    facts.locks.clear();
    EXPECT_EQ(row_of(facts, 28).state, watch_state::being_programmed);
    EXPECT_TRUE(row_of(facts, 28).progress->goes_on);
    EXPECT_EQ(row_of(facts, 27).state, watch_state::idle);
}

TEST(WatchSnapshot, TheLockOutlastsTheWorkOnTheFlash)
{
    watch_facts facts = forwarded_facts();
    facts.cards[2].flashes[0] = {.last = line(BIOS_PHASE_VERIFY, 100, 1, LATER)};
    EXPECT_EQ(row_of(facts, 28).state, watch_state::being_programmed);
    EXPECT_EQ(row_of(facts, 28).progress->percent, 100U);
    EXPECT_FALSE(row_of(facts, 28).progress->goes_on);

    facts.cards[2].flashes[0].last->since = EARLIER; // of the programming before
    EXPECT_EQ(row_of(facts, 28).progress, std::nullopt);
}

TEST(WatchSnapshot, AKilledProgrammingIsNotVerified)
{
    watch_facts facts = idle_facts();
    facts.cards[1].flashes[0] = {.marked = true, .last = line(BIOS_PHASE_WRITE, 68, 1, EARLIER)};
    facts.cards[1].serves = false;
    const watch_row row = row_of(facts, 27);
    EXPECT_EQ(row.state, watch_state::not_verified);
    EXPECT_EQ(row.marked_flashes, std::vector<unsigned>{0});
    EXPECT_EQ(row.progress->percent, 68U);
    EXPECT_FALSE(row.progress->goes_on);
    facts.locks = {lock(NODE_27, 27)};
    EXPECT_EQ(row_of(facts, 27).state, watch_state::being_programmed) << "it is tried again";

    facts = idle_facts();
    facts.cards[0].flashes[1].marked = true;
    EXPECT_EQ(row_of(facts, 5).state, watch_state::not_verified);
    EXPECT_EQ(row_of(facts, 5).marked_flashes, std::vector<unsigned>{1});
    facts.cards[0].is_spare[1] = true;
    EXPECT_EQ(row_of(facts, 5).state, watch_state::idle) << "the card does not start from it";
    EXPECT_EQ(row_of(facts, 5).marked_flashes, std::vector<unsigned>{1});
}

TEST(WatchSnapshot, AFinishedProgrammingLeavesNoProgress)
{
    watch_facts facts = idle_facts();
    facts.cards[1].flashes[0].last = line(BIOS_PHASE_VERIFY, 100, 1, EARLIER);
    EXPECT_EQ(row_of(facts, 27).state, watch_state::idle);
    EXPECT_EQ(row_of(facts, 27).progress, std::nullopt);
}

TEST(WatchSnapshot, OperatorsLockNamesTheOperator)
{
    watch_facts facts = idle_facts();
    facts.locks = {{.node_id = NODE_5,
                    .slot = 0,
                    .pid = 0,
                    .owner = 0,
                    .reason = BIOS_LOCK_FOR_PEER,
                    .since = "2026-01-31T12:00:00Z",
                    .user = "ann",
                    .host = "far",
                    .until = "2026-01-31T13:00:00Z"}};
    EXPECT_EQ(row_of(facts, 5).state, watch_state::locked);
    EXPECT_EQ(row_of(facts, 5).lock->locked_for, "ann@far");
}

TEST(WatchSnapshot, LocksForOtherReasons)
{
    watch_facts facts = idle_facts();
    facts.locks = {lock(NODE_5, 27, BIOS_LOCK_FOR_PEER)};
    EXPECT_EQ(row_of(facts, 5).state, watch_state::locked);
    EXPECT_EQ(row_of(facts, 5).lock->reason, BIOS_LOCK_FOR_PEER);
    EXPECT_EQ(row_of(facts, 27).state, watch_state::idle);
    facts.cards[0].serves = false;
    EXPECT_EQ(row_of(facts, 5).state, watch_state::no_daemon);
    EXPECT_TRUE(row_of(facts, 5).lock);
    facts.cards[0].serves = true;
    facts.cards[0].is_silent = true;
    EXPECT_EQ(row_of(facts, 5).state, watch_state::daemon_silent);
    facts.locks = {lock(NODE_28, 0, 0, "")};
    EXPECT_EQ(row_of(facts, 28).state, watch_state::locked) << "its record is being written";
}

TEST(WatchSnapshot, ChangesAreNoticedAndTheTimeIsNone)
{
    const watch_snapshot before = make_snapshot(forwarded_facts());
    watch_facts facts = forwarded_facts();
    facts.now = "2026-01-31T12:00:31Z";
    EXPECT_FALSE(make_snapshot(facts).differs_from(before));
    facts.cards[2].flashes[0].last->percent = 44;
    const watch_snapshot now = make_snapshot(facts);
    EXPECT_TRUE(now.differs_from(before));
    ASSERT_EQ(changed_rows(before, now).rows.size(), 1U);
    EXPECT_EQ(changed_rows(before, now).rows[0].slot, 28U);
    facts = forwarded_facts();
    facts.locks_readable = false;
    EXPECT_TRUE(make_snapshot(facts).differs_from(before));
}

// Table

TEST(WatchTable, AsWideAsItHasToBe)
{
    watch_facts facts = forwarded_facts();
    facts.cards[0].serves = false;
    const auto line = [](const char *slot, const char *role, const char *state, const char *progress,
                         const char *locked, const char *result) {
        return row({{slot, 6}, {role, 9}, {state, 20}, {progress, 24}, {locked, 50}, {result, 0}});
    };
    const char *held = "slot 27, programming, since 2026-01-31T12:00:00Z";
    EXPECT_EQ(lines(facts),
              (std::vector<std::string>{NOW, line("SLOT", "ROLE", "STATE", "PROGRESS", "LOCK", "LAST RESULT"),
                                        line("5", "none", "no daemon", "-", "-", "-"),
                                        line("27", "active", "programs module 28", "-", held, "-"),
                                        line("28", "standby", "being programmed", "43% writing, attempt 2", held,
                                             "0x40710021 write_protected 2026-01-31T11:00:00Z")}));
}

TEST(WatchTable, In120Columns)
{
    const auto line = [](const char *slot, const char *role, const char *state, const char *progress,
                         const char *locked, const char *result) {
        return row({{slot, 6}, {role, 9}, {state, 20}, {progress, 24}, {locked, 24}, {result, 0}});
    };
    const char *held = "slot 27 since 12:00:00";
    EXPECT_EQ(lines(forwarded_facts(), watch_space{120, 24}),
              (std::vector<std::string>{NOW, line("SLOT", "ROLE", "STATE", "PROGRESS", "LOCK", "LAST RESULT"),
                                        line("5", "none", "idle", "-", "-", "-"),
                                        line("27", "active", "programs module 28", "-", held, "-"),
                                        line("28", "standby", "being programmed", "43% writing, attempt 2", held,
                                             "0x40710021 write_protected 11:00:00")}));
}

TEST(WatchTable, In80Columns)
{
    EXPECT_EQ(lines(forwarded_facts(), watch_space{80, 24}),
              (std::vector<std::string>{
                  "2026-01-31T12:00:30Z", "SLOT  STATE             PROGRESS        LOCK           LAST RESULT",
                  "5     idle              -               -              -",
                  "27    programs 28       -               slot 27 12:00  -",
                  "28    being programmed  43% writing #2  slot 27 12:00  0x40710021 11:00"}));
}

TEST(WatchTable, TellsNotToReboot)
{
    watch_facts facts = idle_facts();
    facts.cards = {card(27, "active")};
    facts.cards[0].flashes[1] = {.marked = true, .last = line(BIOS_PHASE_WRITE, 68, 1, EARLIER)};
    const std::string remark = "not verified: do not reboot the card; program it again: biosctl program SLOT";
    EXPECT_EQ(
        lines(facts),
        (std::vector<std::string>{
            NOW,
            "SLOT  ROLE    STATE                        PROGRESS                                            "
            "LOCK  LAST RESULT",
            "27    active  not verified: do not reboot  stopped at 68% writing, attempt 1, alternate flash  -     "
            "-",
            remark}));
    const auto narrow = lines(facts, watch_space{80, 24});
    ASSERT_EQ(narrow.size(), 4U);
    EXPECT_EQ(narrow[2], "27    active  not verified  68% writing #1 alt  -     -");
    EXPECT_EQ(narrow[3], remark);
}

TEST(WatchTable, TellsWhichCardHasNothingToFallBackOn)
{
    watch_facts facts = idle_facts();
    facts.cards = {card(27, "active")};
    facts.cards[0].flashes[1] = {.marked = true, .last = line(BIOS_PHASE_WRITE, 68, 1, EARLIER)};
    facts.cards[0].is_spare[1] = true;
    EXPECT_EQ(lines(facts),
              (std::vector<std::string>{
                  NOW, "SLOT  ROLE    STATE  PROGRESS                                            LOCK  LAST RESULT",
                  "27    active  idle   stopped at 68% writing, attempt 1, alternate flash  -     -",
                  "slot 27: its alternate flash is not verified: it has none to fall back on"}));
}

TEST(WatchTable, Words)
{
    watch_facts facts = idle_facts();
    facts.cards = {card(5), card(27), card(28)};
    facts.locks = {lock(NODE_5, 0, BIOS_LOCK_FOR_PEER, "2026-01-30T12:00:00Z"), lock(NODE_27, 27),
                   lock(NODE_28, 0, 0, "")};
    facts.results[5] = {0x4071feed, "2026-01-30T12:00:00Z", 27};
    facts.cards[1].flashes[0].last = line(BIOS_PHASE_VERIFY, 99, 0, LATER);
    const auto full = lines(facts);
    ASSERT_EQ(full.size(), 5U);
    EXPECT_NE(full[2].find("a tool, on request, since 2026-01-30T12:00:00Z"), std::string::npos) << full[2];
    EXPECT_NE(full[3].find("99% verifying, ended"), std::string::npos) << full[3];
    EXPECT_NE(full[4].find("being taken"), std::string::npos) << full[4];
    const auto narrow = lines(facts, watch_space{80, 24});
    EXPECT_NE(narrow[2].find("a tool 2026-01-30"), std::string::npos) << narrow[2];
    EXPECT_NE(narrow[2].find("0x4071feed 2026-01-30"), std::string::npos) << narrow[2];
    facts.cards[1].flashes[0].last.reset();
    EXPECT_NE(lines(facts)[3].find("no flash work"), std::string::npos);

    facts.locks.clear();
    facts.locks_readable = false;
    EXPECT_NE(lines(facts)[2].find("?"), std::string::npos);
    EXPECT_EQ(lines(facts).back(), "the module locks could not be read: what is locked is not known");
}

TEST(WatchTable, ResultsThatCannotBeReadAreNotTakenForNone)
{
    watch_facts facts = forwarded_facts();
    facts.results.clear();
    EXPECT_FALSE(lines(facts)[2].ends_with("?")) << lines(facts)[2];
    facts.results_readable = false;
    EXPECT_TRUE(lines(facts)[2].ends_with("?")) << lines(facts)[2];
    EXPECT_EQ(lines(facts).back(), "the last results could not be read: how programmings have ended is not known");
}

// Each word that the widest table has in its tightest form is somewhere.
TEST(WatchTable, LosesNothingInFortyColumns)
{
    watch_facts facts = idle_facts();
    facts.cards = {card(5), card(27), card(28)};
    facts.cards[0].flashes[0] = {.marked = true, .last = line(BIOS_PHASE_VERIFY, 99, 12, EARLIER)};
    facts.locks = {lock(NODE_27, 27, BIOS_ERR_BUSY, "2026-01-30T12:00:00Z")};
    facts.results[28] = {0x4071feed, "2026-01-30T12:00:00Z", 27};
    facts.results_readable = true;
    std::string drawn;
    for (const std::string &text : lines(facts, watch_space{40, 40})) {
        EXPECT_LT(text.size(), 40U) << text;
        EXPECT_FALSE(text.ends_with('~')) << text;
        drawn += text + "\n";
    }
    for (const char *part : {"not verified: do not reboot", "99% verifying, attempt 12", "slot 27", "2026-01-30",
                             "0x4071feed", "unknown", "do not"})
        EXPECT_NE(drawn.find(part), std::string::npos) << part << " in\n" << drawn;
}

TEST(WatchTable, BreaksAWordThatIsLongerThanALine)
{
    watch_facts facts = idle_facts();
    facts.cards = {card(5)};
    facts.locks = {lock(NODE_5, 0, BIOS_LOCK_FOR_PEER, EARLIER)};
    facts.locks[0].user = "operator";
    facts.locks[0].host = std::string(30, 'h') + std::string(30, 'i') + "end";
    for (const unsigned height : {24U, ~0U}) {
        std::string drawn;
        for (const std::string &text : lines(facts, watch_space{40, height})) {
            EXPECT_LT(text.size(), 40U) << text;
            drawn += text.substr(std::min(text.find_first_not_of(' '), text.size()));
        }
        EXPECT_NE(drawn.find("operator@" + facts.locks[0].host), std::string::npos) << drawn;
    }
}

TEST(WatchTable, FitsIntoEveryTerminal)
{
    watch_facts facts = forwarded_facts();
    facts.cards[1].flashes[1] = {.marked = true, .last = line(BIOS_PHASE_VERIFY, 100, 999, EARLIER)};
    facts.locks_readable = false;
    for (unsigned slot = 30; slot < 232; ++slot)
        facts.cards.push_back(card(slot));
    for (const unsigned columns : {0U, 1U, 2U, 10U, 40U, 79U, 80U, 120U, 400U}) {
        for (const unsigned height : {0U, 1U, 2U, 3U, 5U, 6U, 24U, 300U}) {
            const auto drawn = lines(facts, watch_space{columns, height});
            EXPECT_LT(drawn.size(), std::max(height, 2U)) << columns << "x" << height;
            for (const std::string &text : drawn)
                EXPECT_LT(text.size(), std::max(columns, 1U)) << text;
        }
    }
}

TEST(WatchTable, TooLongATableLeavesOutIdleCardsFirst)
{
    watch_facts facts = forwarded_facts();
    facts.cards.push_back(card(30));
    facts.cards.push_back(card(31));
    const auto drawn = lines(facts, watch_space{80, 7}); // 3 rows
    ASSERT_EQ(drawn.size(), 6U);
    EXPECT_TRUE(drawn[2].starts_with("5 ")) << drawn[2];
    EXPECT_TRUE(drawn[3].starts_with("27 ")) << drawn[3];
    EXPECT_TRUE(drawn[4].starts_with("28 ")) << drawn[4];
    EXPECT_EQ(drawn[5], "and 2 more cards");
    const auto shorter = lines(facts, watch_space{80, 6});
    ASSERT_EQ(shorter.size(), 5U);
    EXPECT_TRUE(shorter[2].starts_with("27 ")) << shorter[2];
    EXPECT_TRUE(shorter[3].starts_with("28 ")) << shorter[3];
    EXPECT_EQ(shorter[4], "and 3 more cards");
    EXPECT_EQ(lines(facts, watch_space{80, 24}).size(), 7U);
}

TEST(WatchTable, ColoursTheStates)
{
    watch_facts facts = forwarded_facts();
    facts.cards[0].serves = false;
    facts.cards[1].flashes[0].marked = true;
    const auto drawn = watch_lines(make_snapshot(facts), std::nullopt);
    ASSERT_EQ(drawn.size(), 6U);
    EXPECT_NE(drawn[2].coloured().find("\033[31mno daemon\033[0m"), std::string::npos);
    EXPECT_NE(drawn[3].coloured().find("\033[31mnot verified: do not reboot\033[0m"), std::string::npos);
    EXPECT_NE(drawn[4].coloured().find("\033[33mbeing programmed\033[0m"), std::string::npos);
    EXPECT_TRUE(drawn[5].coloured().starts_with("\033[31mnot verified: do not reboot\033[0m the card;"));
}

// JSON

TEST(WatchJson, TellsAll)
{
    const auto json = watch_json(make_snapshot(forwarded_facts()));
    EXPECT_EQ(json["command"], "watch");
    EXPECT_EQ(json["time"], NOW);
    EXPECT_EQ(json["locks_readable"], true);
    ASSERT_EQ(json["cards"].size(), 3U);
    EXPECT_EQ(
        json["cards"][2].dump(),
        R"({"slot":28,"role":"standby","state":"being programmed","serves":true,"programs_module":null,)"
        R"("marked_flashes":["primary"],"progress":{"flash":"primary","phase":"writing","percent":43,"attempt":2,)"
        R"("since":"2026-01-31T12:00:05Z","goes_on":true},"lock":{"slot":27,"pid":9,"reason":"0x4071000a",)"
        R"("since":"2026-01-31T12:00:00Z"},"last_result":{"result":"0x40710021","name":"write_protected",)"
        R"("time":"2026-01-31T11:00:00Z","reported_by_slot":27}})");
    EXPECT_EQ(json["cards"][1]["state"], "programming another module");
    EXPECT_EQ(json["cards"][1]["programs_module"], 28);
    EXPECT_EQ(json["cards"][0].dump(),
              R"({"slot":5,"role":"none","state":"idle","serves":true,"programs_module":null,"marked_flashes":[],)"
              R"("progress":null,"lock":null,"last_result":null})");
}

// The built program

namespace
{

std::vector<std::string> watch_words(const test_chassis &chassis, const std::vector<std::string> &more)
{
    std::vector<std::string> words{"--dir", chassis.path(), "watch"};
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

std::vector<nlohmann::json> objects_of(const std::string &output)
{
    std::vector<nlohmann::json> objects;
    std::istringstream text(output);
    for (std::string each; std::getline(text, each);)
        objects.push_back(nlohmann::json::parse(each));
    return objects;
}

} // namespace

TEST(Watch, OnceTellsEachCardOnce)
{
    const test_chassis chassis;
    biosctl_run run(watch_words(chassis, {"--once", "--json"}));
    EXPECT_EQ(run.exit_code(), 0) << run.err();
    const auto objects = objects_of(run.out());
    ASSERT_EQ(objects.size(), 1U);
    ASSERT_EQ(objects[0]["cards"].size(), 3U);
    EXPECT_EQ(objects[0]["cards"][0]["state"], "no daemon");
    EXPECT_EQ(run.err(), "");
}

TEST(Watch, ShowsTheModulesAskedForInOrder)
{
    const test_chassis chassis;
    biosctl_run run(watch_words(chassis, {"28", "5", "28", "--once"}));
    EXPECT_EQ(run.exit_code(), 0) << run.err();
    std::istringstream text(run.out());
    std::vector<std::string> shown;
    for (std::string each; std::getline(text, each);)
        shown.push_back(each);
    ASSERT_EQ(shown.size(), 4U) << run.out();
    EXPECT_EQ(shown[2], "5     none     no daemon  -         -     -");
    EXPECT_EQ(shown[3], "28    standby  no daemon  -         -     -");
}

TEST(Watch, WhatIsNotThereAndWhatIsNotUnderstood)
{
    const test_chassis chassis;
    biosctl_run missing(watch_words(chassis, {"7"}));
    EXPECT_EQ(missing.exit_code(), 3);
    biosctl_run nowhere({"--dir", chassis.path() + "/none", "watch", "--once", "--json"});
    EXPECT_EQ(nowhere.exit_code(), 3);
    EXPECT_EQ(nlohmann::json::parse(nowhere.out())["exit_code"], 3);
    for (const char *interval : {"0", "0.09", "3600.1", "", ".", "1.", ".5", "nan", "1e1", "0.1234", "-1"}) {
        biosctl_run run(watch_words(chassis, {"--once", std::string("--interval=") + interval}));
        EXPECT_EQ(run.exit_code(), 64) << interval;
    }
    for (const char *interval : {"0.1", "3600", "1.5", "0.125"}) {
        biosctl_run run(watch_words(chassis, {"--once", std::string("--interval=") + interval}));
        EXPECT_EQ(run.exit_code(), 0) << interval;
    }
}

TEST(Watch, EndsInTime)
{
    const test_chassis chassis;
    biosctl_run run(watch_words(chassis, {"--for", "1", "--interval", "3600", "--json"}));
    EXPECT_EQ(run.exit_code(), 0) << run.err();
    EXPECT_EQ(objects_of(run.out()).size(), 1U) << "nothing has changed";
}

TEST(Watch, EndsWhenTheChassisGoes)
{
    const test_chassis chassis;
    biosctl_run run(watch_words(chassis, {"--interval", "0.1"}));
    ASSERT_TRUE(run.wait_for_output("SLOT"));
    std::filesystem::remove_all(chassis.path());
    EXPECT_EQ(run.exit_code(), 3);
    EXPECT_NE(run.err().find("the chassis has gone"), std::string::npos) << run.err();
}

TEST(Watch, EndsWithCtrlCWhileItWaits)
{
    const test_chassis chassis;
    biosctl_run run(watch_words(chassis, {"--interval", "3600"}));
    ASSERT_TRUE(run.wait_for_output("SLOT"));
    run.signal(SIGINT);
    EXPECT_EQ(run.exit_code(), 0);
    EXPECT_EQ(run.err(), "");
}

TEST(Watch, EndsWhenItsReaderGoes)
{
    const test_chassis chassis;
    biosctl_run run(watch_words(chassis, {"--interval", "3600"}));
    ASSERT_TRUE(run.wait_for_output("SLOT"));
    run.close_output();
    EXPECT_EQ(run.exit_code(), 0);
    EXPECT_EQ(run.err(), "");
}

TEST(Watch, TellsOfEachChangeThatItSees)
{
    const test_chassis chassis;
    biosctl_run run(watch_words(chassis, {"--interval", "0.1", "--json"}));
    ASSERT_TRUE(run.wait_for_output("\n"));
    scripted_daemon daemon(chassis, 27, [](daemon_side &side) {
        static constexpr std::uint32_t request[4] = {1, 0, 0, BIOS_LOCK_FOR_PEER};
        if (modlock_init() != 0 || modlock_module_lock(129, NODE_5, request) != 0)
            ::_exit(73);
        side.notify(BIOS_FLASH_ERR_PROGRAM, 5);
    });
    ASSERT_TRUE(run.wait_for_output(R"("result":"0x4071000c")"));
    daemon.kill();
    ASSERT_TRUE(run.wait_for_output([](const std::string &output) {
        const auto objects = objects_of(output.substr(0, output.rfind('\n') + 1));
        return objects.back()["cards"][0]["lock"].is_null() &&
               objects.back()["cards"][0]["last_result"].is_object();
    }));
    run.signal(SIGINT);
    EXPECT_EQ(run.exit_code(), 0);
    bool locked = false;
    for (const auto &object : objects_of(run.out()))
        locked = locked || (object["cards"][0]["lock"].is_object() && object["cards"][0]["lock"]["slot"] == 27 &&
                            object["cards"][1]["serves"] == true);
    EXPECT_TRUE(locked) << run.out();
}

TEST(Watch, TellsOnlyTheRowsThatHaveChanged)
{
    const test_chassis chassis;
    biosctl_run run(watch_words(chassis, {"--interval", "0.1"}));
    ASSERT_TRUE(run.wait_for_output("28 "));
    const std::size_t before = run.out().size();
    std::ofstream(chassis.flash_folder(5, "primary") + "/programming") << "";
    ASSERT_TRUE(run.wait_for_output("biosctl program SLOT\n"));
    run.signal(SIGINT);
    EXPECT_EQ(run.exit_code(), 0);
    const std::string more = run.out().substr(before);
    EXPECT_NE(more.find("\n5     none  not verified: do not reboot"), std::string::npos) << more;
    EXPECT_EQ(more.find("\n27 "), std::string::npos) << more;
}

TEST(Watch, LeavesNothingBehind)
{
    const test_chassis chassis;
    scripted_daemon daemon(chassis, 27, [](daemon_side &) {});
    const auto names = [&] {
        std::set<std::string> found;
        for (const auto &entry : std::filesystem::recursive_directory_iterator(chassis.path()))
            found.insert(entry.path().string());
        return found;
    };
    biosctl_run first(watch_words(chassis, {"--once"}));
    ASSERT_EQ(first.exit_code(), 0) << "the agents have made what is theirs when they answer";
    const auto before = names();
    biosctl_run run(watch_words(chassis, {"--interval", "3600"}));
    ASSERT_TRUE(run.wait_for_output("28 "));
    run.signal(SIGINT);
    EXPECT_EQ(run.exit_code(), 0);
    EXPECT_EQ(names(), before);
    EXPECT_NE(run.out().find("27    active   idle"), std::string::npos) << run.out();
}

// Results

TEST(WatchResults, ZeroIsOkOnlyWhenTheFlashWasVerified)
{
    const std::pair<agent_outcome, std::string> cases[] = {
        {AGENT_OUTCOME_VERIFIED, "ok"},
        {AGENT_OUTCOME_WITHOUT_RESULT, "ended without a result"},
        {AGENT_OUTCOME_NONE, "ended"},
    };
    for (const auto &[outcome, name] : cases) {
        watch_facts facts = idle_facts();
        facts.results[28] = {0, EARLIER, 27, outcome};
        const std::vector<std::string> all = lines(facts);
        const std::string end = "0x00000000 " + name + " " + EARLIER;
        EXPECT_TRUE(std::ranges::any_of(all, [&](const std::string &line) { return line.ends_with(end); })) << name;
        EXPECT_EQ(watch_json(make_snapshot(facts))["cards"][2]["last_result"]["name"], name);
        for (const std::string &line : lines(facts, watch_space{.columns = 60, .lines = 20})) {
            if (line.starts_with("28")) {
                const std::string brief = outcome == AGENT_OUTCOME_WITHOUT_RESULT ? "no result" : name;
                EXPECT_NE(line.find(" " + brief + " "), std::string::npos) << line;
            }
        }
    }
}
