// The event log of a flash: its lines, the file under many writers, cuts and turning over, what the totals keep,
// and what the flash service notes.
#include "flash_fixture.h"

#include <csignal>
#include <sys/stat.h>

#include "bios_flash.h"
#include "bios_header.h"
#include "flash_event_log.h"
#include "rest_of.h"

namespace
{

constexpr std::int32_t NO_HANDLE = -1;
constexpr std::uint32_t SELECTOR = 0x30;
constexpr std::uint32_t SECTORS = SMALL_FLASH.size_bytes / SMALL_FLASH.sector_bytes;

const flash_event FAILED = {.time = "2026-01-31T23:59:59.123Z",
                            .slot = 3,
                            .instance = 1,
                            .sequence = 17,
                            .pid = 41,
                            .kind = flash_event_kind::failed,
                            .attempt = 2,
                            .sectors_erased = 4,
                            .bytes_written = 8192,
                            .result = 0x40710009,
                            .duration_ms = 1520};
const std::string FAILED_LINE =
    R"({"time":"2026-01-31T23:59:59.123Z","slot":3,"flash":"alternate","sequence":17,"pid":41,"event":"failed",)"
    R"("attempt":2,"sectors_erased":4,"bytes_written":8192,"result":"0x40710009","duration_ms":1520})";

flash_event ended(std::uint64_t sequence, std::uint32_t code, std::uint64_t duration_ms)
{
    return {.sequence = sequence, .kind = flash_event_kind::ended, .result = code, .duration_ms = duration_ms};
}

class EventLog : public chassis_flash_fixture
{
protected:
    void SetUp() override
    {
        chassis_flash_fixture::SetUp();
        create_flash();
    }

    static void append(flash_event_kind kind = flash_event_kind::begun)
    {
        flash_event_append(open_flash_folder(TEST_SLOT, 0), {.slot = TEST_SLOT, .kind = kind});
    }
    static std::vector<flash_event> events(unsigned instance = 0)
    {
        return flash_event_history_of(TEST_SLOT, instance).events;
    }
    static flash_event_totals totals() { return flash_event_history_of(TEST_SLOT, 0).totals; }

    // "begun attempt verified ended"
    static std::string story(unsigned instance = 0)
    {
        std::string text;
        for (const flash_event &event : events(instance))
            text += (text.empty() ? "" : " ") + std::string(flash_event_name(event.kind));
        return text;
    }
    std::string log_text(const char *name = "events") const
    {
        std::ifstream file(flash_file(name));
        return rest_of(file);
    }
    // Events until the file has been turned over.
    void fill_log() const
    {
        constexpr unsigned MORE_THAN_FIT = 20'000;
        for (unsigned k = 0; k < MORE_THAN_FIT && !std::filesystem::exists(flash_file("events.1")); ++k)
            append();
        ASSERT_TRUE(std::filesystem::exists(flash_file("events.1")));
    }
};

class ServiceEvents : public EventLog
{
protected:
    std::string image(int major = 3, int minor = 5)
    {
        return file_of("image", image_with_version(SMALL_FLASH.size_bytes, major, minor));
    }
    static std::int32_t program(const std::string &path, std::uint32_t attempt = 1)
    {
        return program_bios_flash(NO_HANDLE, 0, 0, TEST_SLOT, path.c_str(), attempt, nullptr, 0);
    }
    // Works as a programming child does, which ends by exit().
    static void in_child(const std::function<void()> &work)
    {
        (void)status_of_child([&] {
            work();
            ::exit(0);
            return 0;
        });
    }
};

} // namespace

TEST(FlashEventLine, IsOneJsonObjectOfFixedForm)
{
    EXPECT_EQ(flash_event_format(FAILED), FAILED_LINE + "\n");
    EXPECT_EQ(flash_event_parse(FAILED_LINE), FAILED);
}

TEST(FlashEventLine, TellsOnlyWhatTheEventHas)
{
    const flash_event begun = {.time = "2026-01-31T23:59:59.000Z",
                               .slot = 27,
                               .sequence = 1,
                               .pid = 2,
                               .image_bytes = 268435456,
                               .version = "v3.5.0(09/17/12)"};
    const std::string line =
        R"-({"time":"2026-01-31T23:59:59.000Z","slot":27,"flash":"primary","sequence":1,"pid":2,)-"
        R"-("event":"begun","image_bytes":268435456,"version":"v3.5.0(09/17/12)"})-";
    EXPECT_EQ(flash_event_format(begun), line + "\n");
    EXPECT_EQ(flash_event_parse(line), begun);
}

TEST(FlashEventLine, VersionOfAnImageCannotForgeMembers)
{
    flash_event begun = {.time = "2026-01-31T23:59:59.000Z", .version = "v3\",\"event\":\"ended\\\n\x1b\xff"};
    const std::string line = flash_event_format(begun);
    EXPECT_NE(line.find(R"("version":"v3,event:ended"})"), std::string::npos) << line;
    begun.version = std::string(100'000, 'v');
    EXPECT_LE(flash_event_format(begun).size(), FLASH_EVENT_LINE_BYTES_MAX);
}

TEST(FlashEventLine, NothingElseIsAnEvent)
{
    for (std::size_t length = 0; length < FAILED_LINE.size(); ++length)
        EXPECT_FALSE(flash_event_parse(FAILED_LINE.substr(0, length))) << length;
    for (std::size_t place = 0; place < FAILED_LINE.size(); ++place) {
        std::string broken = FAILED_LINE;
        broken[place] = '\x01';
        EXPECT_FALSE(flash_event_parse(broken)) << place;
    }
    std::string leading_zero = FAILED_LINE;
    leading_zero.insert(leading_zero.find("17,\"pid"), "0");
    EXPECT_FALSE(flash_event_parse(leading_zero));
    EXPECT_FALSE(flash_event_parse(FAILED_LINE + " "));
}

TEST(FlashEventLine, ANumberThatNoLogReachesIsDamage)
{
    std::string line = FAILED_LINE;
    line.replace(line.find("17,\"pid"), 2, "9007199254740992"); // 2^53
    EXPECT_TRUE(flash_event_parse(line));
    line.replace(line.find("9007199254740992"), 16, "9007199254740993");
    EXPECT_FALSE(flash_event_parse(line));
    EXPECT_EQ(flash_event_totals_parse("sequence 9007199254740993\nbegun 1"), flash_event_totals{});
}

TEST_F(EventLog, TotalsThatAreAheadOfTheLogAreBegunAnew)
{
    append();
    write_flash_file("event_totals", "sequence 1000000\nbegun 7\n");
    fill_log();
    const std::size_t written = events().size();
    EXPECT_GT(written, 1000U);
    EXPECT_EQ(totals().begun, written);
}

TEST_F(EventLog, TotalsThatCannotBeReadAreNotReplaced)
{
    std::filesystem::create_directory(flash_file("kept"));
    std::filesystem::create_symlink("kept", flash_file("event_totals"));
    for (unsigned k = 0; k < 12'000; ++k)
        append();
    EXPECT_FALSE(std::filesystem::exists(flash_file("events.1")));
    EXPECT_TRUE(std::filesystem::is_symlink(flash_file("event_totals")));
    EXPECT_EQ(events().size(), 12'000U);
}

TEST_F(EventLog, NumbersTheEventsAndKnowsTimeAndProcess)
{
    append(flash_event_kind::begun);
    append(flash_event_kind::cut_off);
    const std::vector<flash_event> told = events();
    ASSERT_EQ(told.size(), 2U);
    EXPECT_EQ(told[0].sequence, 1U);
    EXPECT_EQ(told[1].sequence, 2U);
    EXPECT_EQ(told[1].pid, static_cast<std::uint32_t>(::getpid()));
    EXPECT_EQ(told[1].slot, TEST_SLOT);
    EXPECT_LE(told[0].time, told[1].time);
    EXPECT_EQ(story(), "begun cut_off");
}

TEST_F(EventLog, LeavesALineThatWasCutOffBehind)
{
    append();
    append();
    const std::string whole = log_text();
    std::filesystem::resize_file(flash_file("events"), whole.size() - 7);
    EXPECT_EQ(events().size(), 1U);
    append(flash_event_kind::cut_off);
    EXPECT_EQ(story(), "begun cut_off");
    EXPECT_EQ(events().back().sequence, 2U);
    EXPECT_EQ(totals().begun, 1U);
}

TEST_F(EventLog, LinesOfManyProcessesStayWhole)
{
    constexpr unsigned PROCESSES = 8;
    constexpr unsigned EACH = 50;
    std::vector<pid_t> children;
    for (unsigned k = 0; k < PROCESSES; ++k) {
        children.push_back(::fork());
        if (children.back() == 0) {
            for (unsigned event = 0; event < EACH; ++event)
                append();
            ::_exit(0);
        }
    }
    for (const pid_t child : children)
        EXPECT_EQ(::waitpid(child, nullptr, 0), child);
    const std::vector<flash_event> told = events();
    ASSERT_EQ(told.size(), PROCESSES * EACH);
    for (std::size_t place = 0; place < told.size(); ++place)
        EXPECT_EQ(told[place].sequence, place + 1);
}

TEST_F(EventLog, IsBoundedAndItsTotalsStay)
{
    fill_log();
    const std::uint64_t first_time = events().size();
    std::filesystem::remove(flash_file("events.1"));
    fill_log();
    EXPECT_LE(std::filesystem::file_size(flash_file("events")), 1U << 20);
    EXPECT_LE(std::filesystem::file_size(flash_file("events.1")), 1U << 20);
    EXPECT_LT(events().size(), totals().begun) << "the oldest should have gone";
    EXPECT_EQ(totals().begun, events().back().sequence);
    EXPECT_GT(totals().begun, first_time);
}

TEST_F(EventLog, EventsCountOnceWhereverTurningOverWasCutOff)
{
    fill_log();
    const std::uint64_t all = events().back().sequence;
    ASSERT_EQ(totals().begun, all);
    // The totals were stored, and the log was not renamed any more.
    std::filesystem::rename(flash_file("events.1"), flash_file("events"));
    const std::uint64_t left = events().back().sequence;
    EXPECT_EQ(totals().begun, left);
    append();
    EXPECT_EQ(totals().begun, left + 1);
}

TEST_F(EventLog, KeepsItsNumbersWhenTheLogIsTakenAway)
{
    fill_log();
    std::filesystem::remove(flash_file("events"));
    std::filesystem::remove(flash_file("events.1"));
    const std::uint64_t counted = totals().begun;
    EXPECT_GT(counted, 1000U);
    append();
    EXPECT_EQ(events().back().sequence, counted + 1);
    EXPECT_EQ(totals().begun, counted + 1);
}

TEST_F(EventLog, IsNotWrittenThroughALinkNorIntoAPipe)
{
    file_of("elsewhere", {});
    std::filesystem::create_symlink(dir + "/elsewhere", flash_file("events"));
    append();
    EXPECT_EQ(std::filesystem::file_size(dir + "/elsewhere"), 0U);
    std::filesystem::remove(flash_file("events"));
    ASSERT_EQ(::mkfifo(flash_file("events").c_str(), 0644), 0);
    append();
    EXPECT_EQ(events().size(), 0U);
}

TEST(FlashEventTotals, CountByResultAndDuration)
{
    flash_event_totals totals;
    totals.count(ended(1, 0, 1'000));
    totals.count(ended(2, 0x40710021, 1'001));
    totals.count(ended(3, 0x40710021, 1'800'001));
    totals.count(ended(3, 0, 5)); // counted already
    EXPECT_EQ(totals.ended, (flash_event_totals::count_by_code{{0, 1}, {0x40710021, 2}}));
    EXPECT_EQ(totals.duration_ms, 1'802'002U);
    EXPECT_EQ(totals.took[0], 1U);
    EXPECT_EQ(totals.took[1], 1U);
    EXPECT_EQ(totals.took.back(), 1U);
    EXPECT_EQ(flash_event_totals_parse(flash_event_totals_format(totals)), totals);
    EXPECT_EQ(flash_event_totals_format(totals), "sequence 3\nduration_ms 1802002\ntook 1000 1\ntook 5000 1\n"
                                                 "took inf 1\nended 0x00000000 1\nended 0x40710021 2\n");
}

TEST(FlashEventTotals, AFileThatIsNoneCountsAsNothing)
{
    for (const char *content : {"sequence", "sequence x", "sequence 1 2", "strange 4", "ended 3", "took 7 1",
                                "ended 0x1 1", "sequence 3\nended 0x00000000 1 1", "sequence -1"})
        EXPECT_EQ(flash_event_totals_parse(content), flash_event_totals{}) << content;
}

TEST_F(ServiceEvents, TellAProgrammingFromItsBeginningToItsEnd)
{
    ASSERT_EQ(program(image()), 0);
    ASSERT_EQ(story(), "begun attempt verified ended");
    const std::vector<flash_event> told = events();
    EXPECT_EQ(told[0].image_bytes, 65536U);
    EXPECT_EQ(told[0].version, "v3.5.0(09/17/12)");
    EXPECT_EQ(told[1].attempt, 1U);
    EXPECT_EQ(told[2].sectors_erased, 0U) << "it was erased before";
    EXPECT_EQ(told[2].bytes_written, 65536U);
    EXPECT_EQ(told[3].result, 0U);
    EXPECT_TRUE(told[3].duration_ms);

    ASSERT_EQ(program(image(4, 0)), 0);
    EXPECT_EQ(events()[6].sectors_erased, SECTORS);
    EXPECT_EQ(events()[6].bytes_written, 65536U);
}

TEST_F(ServiceEvents, TellThatNothingHadToBeChanged)
{
    const std::string path = image();
    ASSERT_EQ(program(path), 0);
    ASSERT_EQ(program(path), 0);
    EXPECT_EQ(story(), "begun attempt verified ended begun attempt equal ended");
    EXPECT_FALSE(events()[6].bytes_written);
}

TEST_F(ServiceEvents, AttemptsAreOneProgramming)
{
    ASSERT_EQ(program(image()), 0);
    in_child([this] {
        write_flash_file("faults", "fail erase 3\n");
        const std::string path = image();
        EXPECT_EQ(program(path, 1), BIOS_FLASH_ERR_ERASE);
        EXPECT_EQ(program(path, 2), 0);
    });
    EXPECT_EQ(story(), "begun attempt verified ended begun attempt failed attempt verified ended");
    EXPECT_EQ(events()[6].result, 0x40710009U);
    EXPECT_EQ(events()[6].sectors_erased, 3U);
    EXPECT_EQ(totals().begun, 2U);
    EXPECT_EQ(totals().failed[0x40710009], 1U);
    EXPECT_EQ(totals().ended[0], 2U);
}

TEST_F(ServiceEvents, AFailureIsTheEndWhenTheProcessTriesNoMore)
{
    in_child([this] {
        write_flash_file("faults", "fail program always\n");
        const std::string path = image();
        EXPECT_EQ(program(path, 1), BIOS_FLASH_ERR_PROGRAM);
        EXPECT_EQ(program(path, 2), BIOS_FLASH_ERR_PROGRAM);
    });
    EXPECT_EQ(story(), "begun attempt failed attempt failed ended");
    EXPECT_EQ(events().back().result, 0x4071000cU);
    EXPECT_EQ(totals().ended[0x4071000c], 1U);
}

TEST_F(ServiceEvents, AFailureIsTheEndWhenAnotherProgrammingBegins)
{
    write_flash_file("protected", "0\n");
    EXPECT_EQ(program(image()), BIOS_FLASH_ERR_PROTECTED);
    write_flash_file("protected", "");
    EXPECT_EQ(program(image()), 0);
    EXPECT_EQ(story(), "begun attempt failed ended begun attempt verified ended");
    EXPECT_EQ(events()[3].result, 0x40710021U);
}

// It is known only later that no other attempt follows.
TEST_F(ServiceEvents, AFailedProgrammingHasEndedWithItsLastAttempt)
{
    in_child([this] {
        write_flash_file("protected", "0\n");
        EXPECT_EQ(program(image()), BIOS_FLASH_ERR_PROTECTED);
        (void)::usleep(20'000);
        EXPECT_EQ(program(image()), BIOS_FLASH_ERR_PROTECTED);
        (void)::usleep(20'000);
    });
    const std::vector<flash_event> told = events();
    ASSERT_EQ(story(), "begun attempt failed ended begun attempt failed ended");
    EXPECT_EQ(told[3].time, told[2].time);
    EXPECT_EQ(told[7].time, told[6].time);
}

TEST_F(ServiceEvents, TellWhatDidNotGetToTheFlash)
{
    EXPECT_EQ(program(dir + "/missing"), BIOS_FLASH_ERR_IMAGE_READ);
    const auto writer = open_flash();
    EXPECT_EQ(program(image()), BIOS_FLASH_ERR_IN_USE);
    ASSERT_EQ(story(), "refused refused");
    EXPECT_EQ(events()[0].result, 0x40710023U);
    EXPECT_EQ(events()[1].result, 0x40710027U);
    EXPECT_EQ(totals().begun, 0U);
}

TEST_F(ServiceEvents, TellOfACutOnceAndByTheNextProgramming)
{
    write_flash_file("faults", "stop program 3\n");
    in_child([this] { (void)program(image()); });
    ASSERT_TRUE(is_marked());
    EXPECT_EQ(story(), "begun attempt");
    in_child([this] { (void)program(image()); });
    EXPECT_EQ(story(), "begun attempt cut_off begun attempt verified ended");
    EXPECT_EQ(totals().cut_off, 1U);
}

TEST_F(ServiceEvents, TellOfACutAtTheNextStart)
{
    write_flash_file("faults", "stop program 3\n");
    in_child([this] { (void)program(image()); });
    const auto start = [] {
        char version[128];
        (void)get_bios_flash_version(version, 0);
        (void)get_bios_flash_version(version, 0);
    };
    in_child(start);
    in_child(start);
    EXPECT_EQ(story(), "begun attempt cut_off");
    in_child([this] { (void)program(image()); });
    EXPECT_EQ(story(), "begun attempt cut_off begun attempt verified ended");
}

TEST_F(ServiceEvents, AFlashThatAFailureHasLeftMarkedWasNotCutOff)
{
    in_child([this] {
        write_flash_file("faults", "fail program always\n");
        (void)program(image());
    });
    in_child([this] { (void)program(dir + "/missing"); });
    in_child([] {
        char version[128];
        (void)get_bios_flash_version(version, 0);
    });
    EXPECT_EQ(story(), "begun attempt failed ended refused");
}

TEST_F(ServiceEvents, TellOfAnEraseBeforeTheFirstAttempt)
{
    in_child([this] {
        EXPECT_EQ(ibexpeak_bios_flash_erase(SELECTOR), 0);
        EXPECT_EQ(
            ibexpeak_program_bios_command_ex(image().c_str(), SELECTOR, NO_HANDLE, 0, 0, TEST_SLOT, 1, nullptr), 0);
    });
    EXPECT_EQ(story(), "begun erased attempt verified ended");
    EXPECT_EQ(events()[1].sectors_erased, SECTORS);
    EXPECT_EQ(events()[0].image_bytes, 65536U) << "of what was claimed before the erase";
    EXPECT_EQ(events()[2].image_bytes, 65536U);
    EXPECT_EQ(totals().sectors_erased, SECTORS);
}

TEST_F(ServiceEvents, AreNoOperationsOfTheFlash)
{
    ASSERT_EQ(program(image()), 0);
    EXPECT_EQ(wear().reads, 3 * SECTORS) << "two find that a sector differs, one verifies it";
    EXPECT_EQ(wear().programs, SMALL_FLASH.size_bytes / SMALL_FLASH.page_bytes);
    EXPECT_EQ(wear().erases, 0U);
}

TEST_F(ServiceEvents, AFlashWhoseLogCannotBeWrittenIsProgrammed)
{
    std::filesystem::create_directory(flash_file("events"));
    EXPECT_EQ(program(image()), 0);
    EXPECT_FALSE(is_marked());
}
