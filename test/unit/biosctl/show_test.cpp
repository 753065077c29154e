// biosctl show and audit: the records as literal bytes, the table, and the built program against daemons that
// follow a script.
#include <map>
#include <random>
#include <sstream>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "biosctl_daemons.h"
#include "card_versions.h"
#include "lock_holders.h"
#include "modlock.h"
#include "show_report.h"
#include "version_records.h"

namespace
{

using bytes = std::vector<std::uint8_t>;

constexpr const char *OLD = "v3.1.0(02/11/11)";
constexpr const char *NEW = "v3.5.0(09/17/12)";

void put_text(bytes &to, std::size_t offset, const std::string &text)
{
    std::copy(text.begin(), text.end(), to.begin() + static_cast<std::ptrdiff_t>(offset));
}

// Answer about one flash as a daemon sends it, put together by offsets.
bytes versions_answer(std::uint8_t module, const std::string &flash, const std::string &running)
{
    bytes answer(16 + 392);
    answer[7] = module;
    answer[11] = 1;
    answer[15] = 19;
    answer[16 + 7] = 11;
    put_text(answer, 16 + 8, "swid-bios");
    put_text(answer, 16 + 136, "  " + flash);
    put_text(answer, 16 + 264, "  " + running);
    return answer;
}

bytes failure_answer(std::uint8_t module)
{
    return {0xff, 0xff, 0xff, 0xff, 0, 0, 0, module, 0, 0, 0, 0, 0xab, 0xcd, 0xef, 0x01};
}

chassis_report report_of(std::vector<card_report> cards)
{
    return {.serving_slot = 27, .cards = std::move(cards)};
}

card_report card_of(unsigned module, const version_facts &facts)
{
    return {.module = module, .flashes = {{.label = "swid-bios", .facts = facts, .kind = judge(facts)}}};
}

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

chassis_module_lock_holder lock_on(std::uint16_t node, std::uint32_t slot, std::uint32_t pid, std::uint32_t reason)
{
    return {node, slot, pid, 129, reason, "2024-05-01T10:00:00Z"};
}

} // namespace

TEST(VersionRequests, IsTheLiteralBody)
{
    EXPECT_EQ(encode_module_version_request(27).body, (bytes{0, 0, 0, 27}));
}

TEST(ModuleVersions, AreTakenFromAnAnswer)
{
    const auto answer = decode_module_versions(versions_answer(5, OLD, NEW), 5);
    ASSERT_EQ(answer.kind, module_answer_kind::versions);
    ASSERT_EQ(answer.entries.size(), 1u);
    EXPECT_EQ(answer.entries[0].label, "swid-bios");
    EXPECT_EQ(answer.entries[0].flash, OLD);
    EXPECT_EQ(answer.entries[0].running, NEW);
}

TEST(ModuleVersions, AllOnesInSixteenBytesAreUnreachable)
{
    EXPECT_EQ(decode_module_versions(failure_answer(5), 5).kind, module_answer_kind::unreachable);
}

TEST(ModuleVersions, TheUndefinedFirstWordOfAnAnswerWithEntriesMeansNothing)
{
    bytes answer = versions_answer(5, OLD, OLD);
    std::fill_n(answer.begin(), 4, std::uint8_t{0xff});
    EXPECT_EQ(decode_module_versions(answer, 5).kind, module_answer_kind::versions);
}

TEST(ModuleVersions, AnAnswerAboutAnotherModuleIsNotTakenForThisOne)
{
    EXPECT_EQ(decode_module_versions(versions_answer(18, OLD, OLD), 5).kind, module_answer_kind::other_module);
    const auto failed = decode_module_versions(failure_answer(18), 5);
    EXPECT_EQ(failed.kind, module_answer_kind::other_module);
    EXPECT_EQ(failed.described_module, 18u);
}

TEST(ModuleVersions, NoLengthShorterThanItsEntriesIsTaken)
{
    const bytes whole = versions_answer(5, OLD, OLD);
    for (std::size_t length = 0; length < whole.size(); ++length) {
        const auto answer = decode_module_versions({whole.data(), length}, 5);
        EXPECT_EQ(answer.kind, module_answer_kind::not_understood) << length;
        EXPECT_TRUE(answer.entries.empty()) << length;
    }
}

TEST(ModuleVersions, WildCountsAreNotUnderstood)
{
    for (const std::uint32_t count : {2u, 33u, 0x00a72f06u, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
        bytes answer = versions_answer(5, OLD, OLD);
        const be32 word = be32::of(count);
        std::memcpy(&answer[8], &word, 4);
        EXPECT_EQ(decode_module_versions(answer, 5).kind, module_answer_kind::not_understood) << count;
    }
    bytes many(16 + 33 * 392);
    many[7] = 5;
    many[11] = 33;
    EXPECT_EQ(decode_module_versions(many, 5).kind, module_answer_kind::not_understood);
}

TEST(ModuleVersions, TextsWithoutEndAndWithControlCharactersStayInTheirField)
{
    bytes answer = versions_answer(5, OLD, OLD);
    std::fill_n(answer.begin() + 16 + 136, 128, std::uint8_t{'f'});
    std::fill_n(answer.begin() + 16 + 264, 128, std::uint8_t{'r'});
    answer[16 + 8] = 0x1b;
    answer[16 + 9] = 0xff;
    const auto decoded = decode_module_versions(answer, 5);
    ASSERT_EQ(decoded.entries.size(), 1u);
    EXPECT_EQ(decoded.entries[0].flash, std::string(128, 'f'));
    EXPECT_EQ(decoded.entries[0].running, std::string(128, 'r'));
    EXPECT_EQ(decoded.entries[0].label, "??id-bios");
}

TEST(ModuleVersions, EmptyEntriesAreCountedAndLeftOut)
{
    bytes answer = versions_answer(5, OLD, OLD);
    answer.resize(16 + 2 * 392);
    answer[11] = 2;
    const auto decoded = decode_module_versions(answer, 5);
    EXPECT_EQ(decoded.kind, module_answer_kind::versions);
    EXPECT_EQ(decoded.entries.size(), 1u);
    EXPECT_EQ(decoded.empty_entries, 1u);
}

TEST(ModuleVersions, RandomBytesNeverTellOfMoreThanTheyHold)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (int round = 0; round < 2000; ++round) {
        bytes answer(random() % 2000);
        std::ranges::generate(answer, [&] { return static_cast<std::uint8_t>(random()); });
        if (answer.size() >= 12) { // past the first checks, every second time
            std::fill_n(answer.begin() + 4, 8, std::uint8_t{0});
            answer[7] = 5;
            answer[11] = static_cast<std::uint8_t>(random() % 8);
        }
        EXPECT_LE(16 + 392 * decode_module_versions(answer, 5).entries.size(),
                  std::max<std::size_t>(answer.size(), 16));
    }
}

TEST(ProgrammingLocks, TheProgrammingSupervisorIsNotBeingProgrammedItself)
{
    const std::vector holders{lock_on(27 * 256 + 1, 27, 41, 0x4071000a), lock_on(5 * 256 + 2, 27, 41, 0x4071000a)};
    const auto locks = programming_of(holders);
    EXPECT_TRUE(locks.any);
    EXPECT_FALSE(locks.has(27 * 256 + 1));
    EXPECT_TRUE(locks.has(5 * 256 + 2));
}

TEST(ProgrammingLocks, ALockOfTheOwnModuleAloneIsItsOwnProgramming)
{
    const auto locks = programming_of(std::vector{lock_on(27 * 256 + 1, 27, 41, 0x4071000a)});
    EXPECT_TRUE(locks.has(27 * 256 + 1));
}

TEST(ProgrammingLocks, ALockForAPeerIsNoProgramming)
{
    const std::vector holders{lock_on(27 * 256 + 1, 27, 41, 0x4071000a), lock_on(5 * 256 + 2, 27, 41, 0x4071000b)};
    EXPECT_TRUE(programming_of(holders).has(27 * 256 + 1));
    EXPECT_FALSE(programming_of(holders).has(5 * 256 + 2));
    EXPECT_FALSE(programming_of(std::vector{holders[1]}).any);
    EXPECT_FALSE(programming_of({}).any);
}

TEST(ProgrammingLocks, ALockWithoutARecordMayBecomeAProgramming)
{
    const auto locks = programming_of(std::vector{chassis_module_lock_holder{27 * 256 + 1, 0, 0, 0, 0, ""}});
    EXPECT_TRUE(locks.any);
    EXPECT_FALSE(locks.has(27 * 256 + 1));
}

namespace
{

std::string table_of(const std::vector<card_report> &cards, const output_style &style = {})
{
    return text_of({version_table(cards)}, style);
}

} // namespace

TEST(VersionTable, IsAligned)
{
    const std::string expected = "SLOT  SOURCE            FLASH             RUNNING           VERDICT\n"
                                 "5     -                 v3.1.0(02/11/11)  v3.1.0(02/11/11)  unknown\n"
                                 "27    v3.5.0(09/17/12)  v3.1.0(02/11/11)  v3.1.0(02/11/11)  update available\n"
                                 "232   -                 -                 -                 unreachable\n";
    EXPECT_EQ(
        table_of({card_of(5, {.flash = OLD, .running = OLD}),
                  card_of(27, {.flash = OLD, .running = OLD, .source = NEW}), card_of(232, {.reachable = false})}),
        expected);
}

TEST(VersionTable, ShowsVersionsOfAnyLengthWhole)
{
    const card_report card =
        card_of(9, {.flash = "v10.1.0(02/11/11)", .running = OLD, .source = "v10.5.0(09/17/12)"});
    EXPECT_EQ(table_of({card}), "SLOT  SOURCE             FLASH              RUNNING           VERDICT\n"
                                "9     v10.5.0(09/17/12)  v10.1.0(02/11/11)  v3.1.0(02/11/11)  reboot pending\n");
    const std::string longest(128, 'x');
    EXPECT_NE(table_of({card_of(9, {.flash = longest, .running = OLD})}).find("  " + longest + "  "),
              std::string::npos);
}

TEST(VersionTable, FitsIntoATerminalOfEightyAndOfFortyColumns)
{
    const std::vector<card_report> cards{
        card_of(232, {.being_programmed = true, .flash = OLD, .running = OLD, .source = NEW}),
        card_of(232,
                {.flash = "v10.1.0(02/11/11)", .running = "v10.1.0(02/11/11)", .source = "v10.0.0(02/11/11)"})};
    for (const std::size_t columns : {80U, 40U}) {
        const std::string table = table_of(cards, {.columns = columns});
        for (const std::string &line : lines_of(table))
            EXPECT_LE(line.size(), columns) << table;
        for (const char *word : {"VERDICT", "v10.0.0(02/11/11)", "newer than", "shipped", "being programmed"})
            EXPECT_NE(table.find(word), std::string::npos) << word << ": " << table;
    }
}

TEST(VersionTable, ColoursTheVerdicts)
{
    const std::string table =
        table_of({card_of(5, {.flash = NEW, .running = NEW, .source = NEW}),
                  card_of(6, {.flash = OLD, .running = OLD, .source = NEW}), card_of(7, {.reachable = false})},
                 {.colours = true});
    EXPECT_NE(table.find("  \033[32min step\033[0m\n"), std::string::npos) << table;
    EXPECT_NE(table.find("  \033[33mupdate available\033[0m\n"), std::string::npos) << table;
    EXPECT_NE(table.find("  \033[31munreachable\033[0m\n"), std::string::npos) << table;
}

TEST(VersionReport, ShowSucceedsAndAuditFailsUnlessEverythingIsInStep)
{
    const card_report in_step = card_of(5, {.flash = NEW, .running = NEW, .source = NEW});
    const std::vector<card_report> others{
        card_of(6, {.being_programmed = true}),
        card_of(6, {.not_verified = true}),
        card_of(6, {.reachable = false}),
        card_of(6, {.changed = true, .flash = NEW, .running = NEW, .source = NEW}),
        card_of(6, {.confirmed = false, .flash = NEW, .running = NEW, .source = NEW}),
        card_of(6, {.flash = NEW, .running = OLD, .source = NEW}),
        card_of(6, {.flash = OLD, .running = OLD, .source = NEW}),
        card_of(6, {.flash = NEW, .running = NEW, .source = OLD}),
        card_of(6, {.flash = NEW, .running = NEW}),
    };
    EXPECT_EQ(report_versions(report_of({in_step}), show_kind::audit).exit, EXIT_DONE);
    for (const card_report &other : others) {
        const auto report = report_of({in_step, other});
        EXPECT_EQ(report_versions(report, show_kind::show).exit, EXIT_DONE);
        const outcome audit = report_versions(report, show_kind::audit);
        EXPECT_EQ(audit.exit, EXIT_FAILED) << verdict_name(other.flashes[0].kind);
        EXPECT_EQ(audit.json["all_in_step"], false);
        EXPECT_NE(audit.headline.plain().find(verdict_name(other.flashes[0].kind)), std::string::npos);
    }
}

TEST(VersionReport, ColoursTheVerdictsOfAnAudit)
{
    const auto audit = [](const version_facts &facts) {
        return report_versions(report_of({card_of(5, facts)}), show_kind::audit);
    };
    EXPECT_EQ(audit({.flash = NEW, .running = NEW, .source = NEW}).headline.coloured(),
              "all \033[32min step\033[0m");
    const outcome busy = audit({.being_programmed = true});
    EXPECT_EQ(busy.headline.coloured(), "\033[31mnot in step\033[0m (\033[33mbeing programmed\033[0m: 1)");
    EXPECT_NE(text_of(busy.report, {.colours = true})
                  .find("\033[33mbeing programmed\033[0m: \033[31mdo not reboot the card\033[0m\n"),
              std::string::npos);
}

TEST(VersionReport, AVersionThatCouldNotBeReadIsNullForPrograms)
{
    const outcome told = report_versions(report_of({card_of(5, {.flash = OLD, .running = OLD})}), show_kind::show);
    EXPECT_TRUE(told.json["cards"][0]["flashes"][0]["source"].is_null());
    EXPECT_EQ(told.json["cards"][0]["flashes"][0]["flash"], OLD);
    EXPECT_EQ(told.json["cards"][0]["flashes"][0]["verdict"], "unknown");
}

TEST(VersionReport, SaysWhatToDoAboutAFlashThatIsNotVerified)
{
    for (const show_kind kind : {show_kind::show, show_kind::audit}) {
        const outcome told = report_versions(report_of({card_of(5, {.not_verified = true, .running = OLD})}), kind);
        const std::string text = text_of(told.report, {});
        EXPECT_NE(text.find("not verified: do not reboot: program it again: biosctl program SLOT\n"),
                  std::string::npos)
            << text;
        EXPECT_EQ(told.json["cards"][0]["flashes"][0]["verdict"], "not verified: do not reboot");
    }
}

// Nobody brings it an image: the command alone would fail.
TEST(VersionReport, DoesNotSendToProgramACardWithoutAnImage)
{
    chassis_report versions = report_of({card_of(5, {.flash = OLD, .running = OLD, .source = NEW})});
    versions.cards[0].gets_image = false;
    const std::string text = text_of(report_versions(versions, show_kind::show).report, {});
    EXPECT_EQ(text.find("biosctl program"), std::string::npos) << text;
    EXPECT_NE(text.find("slot 5: nobody brings an image to this card"), std::string::npos) << text;
}

TEST(VersionReport, ADaemonsWordIsNoReadingOfTheFlash)
{
    const outcome told = report_versions(
        report_of({card_of(5, {.confirmed = false, .flash = OLD, .running = OLD})}), show_kind::show);
    EXPECT_NE(text_of(told.report, {}).find("v3.1.0(02/11/11)?  v3.1.0(02/11/11)?  unconfirmed\n"),
              std::string::npos)
        << text_of(told.report, {});
    EXPECT_EQ(told.json["cards"][0]["flashes"][0]["confirmed"], false);
}

TEST(VersionReport, WithoutTheServingDaemonTheTableIsShownAndItFails)
{
    chassis_report report = report_of({card_of(5, {.flash = NEW, .running = NEW, .source = NEW})});
    report.serving_error = ECONNREFUSED;
    for (const show_kind kind : {show_kind::show, show_kind::audit}) {
        const outcome told = report_versions(report, kind);
        EXPECT_EQ(told.exit, EXIT_FAILED);
        EXPECT_NE(told.headline.plain().find("slot 27: no daemon serves there"), std::string::npos);
        EXPECT_NE(text_of(told.report, {}).find("in step"), std::string::npos);
    }
}

TEST(VersionReport, AnEventLogThatIsNotWholeFailsAnAudit)
{
    chassis_report report = report_of({card_of(5, {.flash = NEW, .running = NEW, .source = NEW})});
    report.cards[0].log_faults = {"primary flash: line 2 was changed"};
    const outcome told = report_versions(report, show_kind::audit);
    EXPECT_EQ(told.exit, EXIT_FAILED);
    EXPECT_EQ(told.headline.plain(), "all in step, event logs not whole");
    EXPECT_NE(text_of(told.report, {}).find("slot 5: event log not whole: primary flash: line 2 was changed\n"),
              std::string::npos);
    EXPECT_EQ(told.json["cards"][0]["log_faults"][0], "primary flash: line 2 was changed");
}

// The program, the agents of the slots 27 (active), 28 (standby) and 5 (a line card), and the active one's daemon.
class Show : public ::testing::Test
{
protected:
    using script = scripted_daemon::script_function;

    Show()
    {
        chassis_.card_holds(5, OLD, OLD);
        chassis_.card_holds(27, NEW, NEW);
        chassis_.card_holds(28, NEW, OLD);
    }
    // A daemon in the slot of the active supervisor that knows the versions of some modules.
    void serve_versions(const std::map<unsigned, std::string> &flashes)
    {
        daemons_.push_back(std::make_unique<scripted_daemon>(
            chassis_, 27, healthy({.flashes = flashes, .running = OLD, .journal = journal()})));
    }
    std::string journal() const { return chassis_.path() + "/journal"; }
    void serve(unsigned slot, const script &what)
    {
        daemons_.push_back(std::make_unique<scripted_daemon>(chassis_, slot, what));
    }
    int run(std::vector<std::string> words)
    {
        words.insert(words.begin(), {"--dir", chassis_.path()});
        run_ = std::make_unique<biosctl_run>(words);
        return run_->exit_code();
    }
    bool has_line(const std::string &expected) const
    {
        const auto lines = lines_of(run_->out());
        return std::ranges::find(lines, expected) != lines.end();
    }
    // Verdict of a module's first flash in a JSON answer.
    std::string verdict_of(unsigned module) const
    {
        const auto answer = nlohmann::json::parse(run_->out(), nullptr, false);
        if (!answer.is_object() || !answer.contains("cards"))
            return "no answer";
        for (const auto &card : answer["cards"]) {
            if (card["module"] == module)
                return card["flashes"][0]["verdict"];
        }
        return "not told";
    }

    test_chassis chassis_;
    std::vector<std::unique_ptr<scripted_daemon>> daemons_;
    std::unique_ptr<biosctl_run> run_;
};

TEST_F(Show, TellsEveryCardAndGivesEachItsVerdict)
{
    serve_versions({{27, NEW}});
    chassis_.agent_says(5, "no_image", "40720022");
    EXPECT_EQ(run({"show"}), 0) << run_->err();
    EXPECT_TRUE(has_line("5     -                 v3.1.0(02/11/11)  v3.1.0(02/11/11)  unknown")) << run_->out();
    EXPECT_TRUE(has_line("27    v3.5.0(09/17/12)  v3.5.0(09/17/12)  v3.5.0(09/17/12)  in step")) << run_->out();
    EXPECT_TRUE(has_line("28    v3.5.0(09/17/12)  v3.5.0(09/17/12)  v3.1.0(02/11/11)  reboot pending"));
    EXPECT_TRUE(has_line("slot 5: no image version: there is no such regular file on the card")) << run_->out();
    EXPECT_EQ(run_->err(), "");
}

TEST_F(Show, NoDaemonIsHadUnpackAnything)
{
    serve_versions({{27, NEW}});
    EXPECT_EQ(run({"show"}), 0);
    EXPECT_EQ(run({"audit"}), 1);
    EXPECT_EQ(text_of_file(journal()), "");
}

TEST_F(Show, LeavesNoAddressBehind)
{
    serve_versions({{27, NEW}});
    EXPECT_EQ(run({"show"}), 0);
    EXPECT_TRUE(chassis_.tool_addresses().empty());
}

TEST_F(Show, NamedModulesAloneAreAskedAndEachOnce)
{
    serve_versions({{27, NEW}});
    EXPECT_EQ(run({"--json", "show", "5", "05"}), 0);
    EXPECT_EQ(verdict_of(5), "update available") << run_->out();
    EXPECT_EQ(verdict_of(27), "not told");
    EXPECT_EQ(nlohmann::json::parse(run_->out())["cards"].size(), 1u);
}

TEST_F(Show, AModuleThatDoesNotExistIsNotFound)
{
    EXPECT_EQ(run({"show", "27", "7"}), 3);
    EXPECT_NE(run_->err().find("no module 7"), std::string::npos);
    EXPECT_EQ(run({"audit", "7"}), 3);
}

TEST_F(Show, AuditFailsAndStillTellsTheTable)
{
    serve_versions({{27, NEW}});
    chassis_.end_agent(5);
    EXPECT_EQ(run({"audit", "5"}), 1);
    EXPECT_TRUE(has_line("5     -       -      -        unreachable") ||
                has_line("5     -                 -                 -                 unreachable"))
        << run_->out();
    EXPECT_EQ(run_->err(), "biosctl: not in step (unreachable: 1)\n");
}

TEST_F(Show, AFlashThatIsNotVerifiedHasNoVersion)
{
    serve_versions({{27, NEW}});
    chassis_.agent_says(5, "flash_state", "1");
    EXPECT_EQ(run({"show", "5"}), 0);
    EXPECT_TRUE(has_line("5     v3.5.0(09/17/12)  -                 v3.1.0(02/11/11)  not verified: do not reboot"))
        << run_->out();
    EXPECT_EQ(run({"audit", "5"}), 1);
    EXPECT_NE(run_->err().find("not in step (not verified: do not reboot: 1)"), std::string::npos) << run_->err();
}

TEST_F(Show, AFlashThatIsWrittenHasNoVersionAlsoWithoutALock)
{
    serve_versions({{27, NEW}});
    chassis_.agent_says(5, "flash_state", "3");
    EXPECT_EQ(run({"show", "5"}), 0);
    EXPECT_TRUE(has_line("5     v3.5.0(09/17/12)  -                 v3.1.0(02/11/11)  being programmed"))
        << run_->out();
}

TEST_F(Show, DuringAProgrammingAFlashHasNoVersionAndTheImagesAreReadAllTheSame)
{
    serve(27, [](daemon_side &side) {
        const std::uint32_t request[4] = {1, 0, 0, 0x4071000a};
        (void)modlock_init();
        (void)modlock_module_lock(129, 27 * 256 + 1, request);
        (void)modlock_module_lock(129, 5 * 256 + 2, request);
        healthy_daemon(side, {.flashes = {{27, NEW}}}).serve();
    });
    ASSERT_TRUE(chassis_.wait_for_lock(27) && chassis_.wait_for_lock(5));
    EXPECT_EQ(run({"show"}), 0);
    EXPECT_TRUE(has_line("5     v3.5.0(09/17/12)  -                 v3.1.0(02/11/11)  being programmed"))
        << run_->out();
    EXPECT_TRUE(has_line("27    v3.5.0(09/17/12)  v3.5.0(09/17/12)  v3.5.0(09/17/12)  in step")) << run_->out();
}

TEST_F(Show, ACardWhoseAgentIsGoneIsShownFromItsDaemonAsUnconfirmed)
{
    serve_versions({{27, NEW}, {5, NEW}});
    chassis_.end_agent(5);
    EXPECT_EQ(run({"show", "5"}), 0);
    EXPECT_TRUE(has_line("5     -       v3.5.0(09/17/12)?  v3.1.0(02/11/11)?  unconfirmed") ||
                has_line("5     -                 v3.5.0(09/17/12)?  v3.1.0(02/11/11)?  unconfirmed"))
        << run_->out();
    EXPECT_TRUE(has_line("slot 5: its agent does not answer")) << run_->out();
    EXPECT_EQ(run({"audit", "5"}), 1);
}

TEST_F(Show, AnAgentThatHangsOrSaysWildThingsIsAsGoodAsNone)
{
    serve_versions({{27, NEW}, {5, NEW}, {28, NEW}});
    chassis_.agent_says(5, "no_versions");
    chassis_.agent_says(28, "wild_versions");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(run({"--json", "show"}), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    EXPECT_EQ(verdict_of(5), "unconfirmed") << run_->out();
    EXPECT_EQ(verdict_of(28), "unconfirmed");
    EXPECT_EQ(verdict_of(27), "in step");
}

TEST_F(Show, WithoutAServingDaemonItFailsAndShowsWhatTheAgentsSay)
{
    EXPECT_EQ(run({"show"}), 1);
    EXPECT_NE(run_->err().find("slot 27: no daemon serves there"), std::string::npos) << run_->err();
    EXPECT_TRUE(has_line("27    v3.5.0(09/17/12)  v3.5.0(09/17/12)  v3.5.0(09/17/12)  in step")) << run_->out();
}

TEST_F(Show, AServingDaemonThatHangsMakesItFail)
{
    serve(27, [](daemon_side &) {});
    EXPECT_EQ(run({"show", "--timeout", "1"}), 1);
    EXPECT_NE(run_->err().find("slot 27: the daemon did not answer in time"), std::string::npos) << run_->err();
}

TEST_F(Show, AModuleThatNeverAnswersIsUnreachableAndTheRestIsNotWaitedFor)
{
    chassis_.end_agent(5);
    chassis_.end_agent(28);
    serve(27, [](daemon_side &side) {
        (void)side.receive(4790);
        std::vector<std::uint8_t> versions = versions_answer(27, NEW, NEW);
        side.answer(0, versions.data(), static_cast<std::uint32_t>(versions.size()));
        (void)side.receive(4790); // 5, and never comes back
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(run({"--json", "show", "--timeout", "1"}), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    EXPECT_EQ(verdict_of(5), "unreachable") << run_->out();
    EXPECT_EQ(verdict_of(28), "unreachable");
    EXPECT_EQ(verdict_of(27), "in step");
    EXPECT_NE(run_->out().find("still waits for a module"), std::string::npos) << run_->out();
}

TEST_F(Show, TheLimitOnTheCardsWaitsLeavesTheDaemonTimeForItsOwnFailure)
{
    std::ofstream(chassis_.path() + "/transport/wait_limit_s") << "1\n";
    chassis_.end_agent(5);
    serve(27, [](daemon_side &side) {
        (void)side.receive(4790);
        std::vector<std::uint8_t> versions = versions_answer(27, NEW, NEW);
        side.answer(0, versions.data(), static_cast<std::uint32_t>(versions.size()));
        (void)side.receive(4790);
        (void)::usleep(2'500'000); // two looks at the limit later
        const bytes failure = failure_answer(5);
        side.answer(0, failure.data(), static_cast<std::uint32_t>(failure.size()));
    });
    EXPECT_EQ(run({"--json", "show", "5"}), 0);
    EXPECT_EQ(verdict_of(5), "unreachable") << run_->out();
    EXPECT_NE(run_->out().find("slot 27 got no versions from it"), std::string::npos) << run_->out();
}

TEST_F(Show, GarbageIsUnknownAndNeverAnUpdate)
{
    serve_versions({{27, NEW}});
    chassis_.card_holds(5, "v3.1", OLD);
    chassis_.card_holds(27, "\x1b[2J\x01\xff", NEW);
    chassis_.card_holds(28, "", "");
    EXPECT_EQ(run({"--json", "audit"}), 1);
    for (const unsigned module : {5u, 27u, 28u})
        EXPECT_EQ(verdict_of(module), "unknown") << module;
    EXPECT_EQ(run_->out().find("\x1b"), std::string::npos);
}

TEST_F(Show, EachCauseOfAMissingImageVersionIsToldApart)
{
    serve_versions({{27, NEW}});
    const std::pair<const char *, const char *> causes[] = {
        {"40720022", "there is no such regular file on the card"},
        {"40720024", "the image was not compressed by gzip"},
        {"40720025", "the image is cut short or damaged"},
        {"40720027", "no space left on the card to unpack the image"},
        {"40720020", "no BIOS is known for this type of card"},
    };
    for (const auto &[status, text] : causes) {
        chassis_.agent_says(5, "no_image", status);
        EXPECT_EQ(run({"show", "5"}), 0);
        EXPECT_TRUE(has_line(std::string("slot 5: no image version: ") + text)) << run_->out();
    }
    chassis_.agent_says(5, "no_image", "0");
    chassis_.agent_says(5, "ships", "");
    EXPECT_EQ(run({"show", "5"}), 0);
    EXPECT_TRUE(has_line("slot 5: no image version: the image holds no version")) << run_->out();
}

TEST_F(Show, TheStandbysImageIsTheOneThatTheActiveSupervisorWouldBring)
{
    serve_versions({{27, NEW}});
    chassis_.agent_says(27, "ships", "v3.9.0(01/01/13)");
    chassis_.agent_says(28, "ships", OLD);
    EXPECT_EQ(run({"show", "28"}), 0);
    EXPECT_TRUE(has_line("28    v3.9.0(01/01/13)  v3.5.0(09/17/12)  v3.1.0(02/11/11)  reboot pending"))
        << run_->out();
    EXPECT_EQ(run({"show", "28", "--via", "28"}), 1) << "no daemon there";
    EXPECT_TRUE(has_line("28    v3.1.0(02/11/11)  v3.5.0(09/17/12)  v3.1.0(02/11/11)  reboot pending"))
        << run_->out();
}

TEST_F(Show, SaysWhichFlashTheCardWasStartedFromAndWhenThatIsNotKnown)
{
    serve_versions({{27, NEW}});
    chassis_.agent_says(5, "started_from", "1");
    EXPECT_EQ(run({"show", "5"}), 0);
    EXPECT_TRUE(has_line("slot 5: it was started from its alternate flash")) << run_->out();
    EXPECT_EQ(run({"--json", "show", "5"}), 0);
    EXPECT_EQ(nlohmann::json::parse(run_->out())["cards"][0]["started_from"], "alternate") << run_->out();
    chassis_.card_holds(5, OLD, "");
    EXPECT_EQ(run({"show", "5"}), 0);
    EXPECT_TRUE(has_line("5     v3.5.0(09/17/12)  v3.1.0(02/11/11)  -                 unknown") ||
                has_line("5     v3.5.0(09/17/12)  v3.1.0(02/11/11)  -        unknown"))
        << run_->out();
    EXPECT_TRUE(has_line("slot 5: which version it was started from is not known")) << run_->out();
}

TEST_F(Show, ManyCardsAreAskedForTheirImagesAtTheSameTime)
{
    constexpr unsigned CARDS = 20; // more than are asked at once
    std::vector<std::string> words{"--json", "audit"};
    serve_versions({{27, NEW}});
    for (unsigned slot = 101; slot <= 100 + CARDS; ++slot) {
        chassis_.insert(slot, 2, 90, 0);
        chassis_.card_holds(slot, NEW, NEW);
        chassis_.agent_says(slot, "slow_image");
        words.push_back(std::to_string(slot));
    }
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(run(words), 0) << run_->out();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500 * CARDS * 3 / 4));
}

TEST_F(Show, InterruptedItEndsWithItsOwnExitCode)
{
    int asked[2];
    ASSERT_EQ(::pipe(asked), 0);
    serve(27, [asked](daemon_side &side) {
        (void)side.receive(4790);
        (void)!::write(asked[1], "r", 1);
    });
    biosctl_run run({"--dir", chassis_.path(), "show"});
    char byte = 0;
    ASSERT_EQ(::read(asked[0], &byte, 1), 1);
    run.signal(SIGINT);
    EXPECT_EQ(run.exit_code(), 130);
    EXPECT_NE(run.err().find("interrupted"), std::string::npos) << run.err();
    ::close(asked[0]);
    ::close(asked[1]);
}

TEST_F(Show, WrongArgumentsAreUsageErrors)
{
    for (const std::vector<std::string> &words : std::vector<std::vector<std::string>>{
             {"show", "0"}, {"show", "233"}, {"audit", "x"}, {"show", "--timeout", "0"}, {"show", "--image", "a"}})
        EXPECT_EQ(run(words), 64) << words.back();
}
