// Debug categories, history ring and syslog of a card.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "chassis_diagnostics.h"
#include "chassis_dir.h"
#include "in_child.h"
#include "line_file.h"
#include "mts_frame.h"
#include "rest_of.h"
#include "sdwrap.h"
#include "temporary_folder.h"
#include "unique_fd.h"

namespace
{

// As it would come from another card.
std::int32_t offered(std::uint32_t opcode)
{
    mts_frame_header header{};
    header.opcode = opcode;
    const mts_held_message message = mts_message_for(header);
    return sdwrap_process_msg(0, message.get());
}

constexpr useconds_t SEVERAL_TICKS_US = 30'000; // a change of a file is known to a busy process by then

namespace fs = std::filesystem;

constexpr unsigned OWN_SLOT = 5;
constexpr std::uint32_t EVENT_TYPE = 0x730000;
constexpr std::uint32_t INFO = 102;

// What follows the time of a line; the whole line when it does not begin with one.
std::string after_time(const std::string &line)
{
    const std::string form = "0000-00-00T00:00:00.000000Z ";
    if (line.size() < form.size())
        return line;
    for (std::size_t index = 0; index < form.size(); ++index) {
        const bool digit = line[index] >= '0' && line[index] <= '9';
        if (form[index] == '0' ? !digit : line[index] != form[index])
            return line;
    }
    return line.substr(form.size());
}

class Diagnostics : public testing::Test
{
protected:
    Diagnostics()
    {
        fs::create_directories(slot_file(""));
        own_slot(OWN_SLOT);
        sdwrap_sys_facility = nullptr;
    }

    void own_slot(unsigned slot) { ASSERT_EQ(0, chassis_attach(folder_.path(), slot)); }
    fs::path slot_file(const std::string &name) const { return folder_.path("slots/5/" + name); }
    void put(const std::string &name, const std::string &content) const
    {
        fs::create_directories(slot_file(name).parent_path());
        std::ofstream(slot_file(name), std::ios::binary | std::ios::trunc) << content;
    }
    std::string content_of(const std::string &name) const
    {
        std::ifstream file(slot_file(name), std::ios::binary);
        EXPECT_TRUE(file) << name;
        return rest_of(file);
    }
    std::vector<std::string> lines_of(const std::string &name) const
    {
        std::vector<std::string> lines;
        std::ifstream file(slot_file(name));
        for (std::string line; std::getline(file, line);)
            lines.push_back(line);
        return lines;
    }

    temporary_folder folder_{"chassis_diagnostics_test"};
};

// Debug categories

bool info_is_on()
{
    return sdwrap_chk_int(INFO, 0, 0, 1) != 0;
}

TEST_F(Diagnostics, RegistrationWritesTheCategoryNames)
{
    const char *const names[] = {"Bios Daemon Errors", "Bios Daemon Warnings", "Bios Daemon Info"};
    ASSERT_EQ(0, sdwrap_dbg_init(0, "bios_daemon", "BIOS Daemon", 3, names, 0, 0, 0));
    EXPECT_EQ("Bios Daemon Errors\nBios Daemon Warnings\nBios Daemon Info\n", content_of("debug/categories"));
}

TEST_F(Diagnostics, RegistrationFailsWithoutASlotFolder)
{
    const char *const names[] = {"Errors"};
    own_slot(9);
    EXPECT_NE(0, sdwrap_dbg_init(0, "bios_daemon", "BIOS Daemon", 1, names, 0, 0, 0));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_NE(0, sdwrap_dbg_init(0, "bios_daemon", "BIOS Daemon", 1, nullptr, 0, 0, 0));
    EXPECT_EQ(EINVAL, errno);
}

TEST_F(Diagnostics, CategoriesFollowTheFlagsWhileTheProcessRuns)
{
    EXPECT_FALSE(info_is_on());
    ASSERT_TRUE(chassis_write_debug_flags(OWN_SLOT, {"info", "warnings"}));
    EXPECT_TRUE(info_is_on());
    EXPECT_NE(0, sdwrap_chk_int(101, 0, 0, 0));
    EXPECT_EQ(0, sdwrap_chk_int(100, 0, 0, 0));
    ASSERT_TRUE(chassis_write_debug_flags(OWN_SLOT, {"errors"}));
    EXPECT_FALSE(info_is_on());
    EXPECT_NE(0, sdwrap_chk_int(100, 0, 0, 0));
    put("debug/flags", "  info\n");
    EXPECT_TRUE(info_is_on());
    fs::remove(slot_file("debug/flags"));
    EXPECT_FALSE(info_is_on());
}

TEST_F(Diagnostics, UnknownCategoriesAreOff)
{
    ASSERT_TRUE(chassis_write_debug_flags(OWN_SLOT, {"errors", "warnings", "info"}));
    for (const std::uint32_t category : {0U, 99U, 103U, 131U, 132U, UINT32_MAX})
        EXPECT_EQ(0, sdwrap_chk_int(category, 0, 0, 1)) << category;
}

TEST_F(Diagnostics, FlagsWithGarbageCountTheKnownWordsOnly)
{
    put("debug/flags", std::string("\xff\0 INFO infox info", 18) + std::string(100000, 'x'));
    EXPECT_EQ((std::vector<std::string>{}), chassis_read_debug_flags(OWN_SLOT)); // the last word is no "info"
    EXPECT_FALSE(info_is_on());
    put("debug/flags", "loud info info\x01\n\n warnings");
    EXPECT_EQ((std::vector<std::string>{"info", "warnings"}), chassis_read_debug_flags(OWN_SLOT));
    EXPECT_TRUE(info_is_on());
    fs::remove(slot_file("debug/flags"));
    fs::create_directories(slot_file("debug/flags"));
    EXPECT_FALSE(info_is_on());
}

TEST_F(Diagnostics, ToolsReadAndSetTheFlags)
{
    EXPECT_TRUE(chassis_read_debug_flags(OWN_SLOT).empty());
    ASSERT_TRUE(chassis_write_debug_flags(OWN_SLOT, {"warnings", "info"}));
    EXPECT_EQ("warnings info\n", content_of("debug/flags"));
    EXPECT_EQ((std::vector<std::string>{"warnings", "info"}), chassis_read_debug_flags(OWN_SLOT));
    EXPECT_FALSE(chassis_write_debug_flags(OWN_SLOT, {"verbose"}));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ("warnings info\n", content_of("debug/flags"));
    ASSERT_TRUE(chassis_write_debug_flags(OWN_SLOT, {}));
    EXPECT_TRUE(chassis_read_debug_flags(OWN_SLOT).empty());
}

TEST_F(Diagnostics, OnlyDebugControlMessagesAreConsumed)
{
    EXPECT_EQ(1, offered(4790));
    EXPECT_EQ(1, offered(0));
    EXPECT_NE(1, offered(CHASSIS_OPC_DEBUG_CONTROL));
    EXPECT_NE(1, sdwrap_process_msg(0, nullptr));
}

TEST_F(Diagnostics, DebugControlMessageMakesFlagsReadAgain)
{
    put("debug/flags", "info\n");
    const fs::file_time_type written = fs::last_write_time(slot_file("debug/flags"));
    EXPECT_TRUE(info_is_on());
    put("debug/flags", "nono\n"); // same file, size and time: cannot be told from the old one
    fs::last_write_time(slot_file("debug/flags"), written);
    ASSERT_TRUE(info_is_on());
    (void)offered(CHASSIS_OPC_DEBUG_CONTROL);
    EXPECT_FALSE(info_is_on());
}

TEST_F(Diagnostics, DebugPrintAppendsOneLineWithTheTime)
{
    buginf("%s:%d %s", "main.cpp", 12, "first\n");
    buginf("second\nline\r\x1b[2J\x7f");
    const auto lines = lines_of("debug/output");
    ASSERT_EQ(2U, lines.size());
    EXPECT_EQ("main.cpp:12 first", after_time(lines[0]));
    EXPECT_EQ("second line  [2J ", after_time(lines[1]));
}

TEST_F(Diagnostics, DebugPrintFailsSoftly)
{
    own_slot(9);
    buginf("lost");
    own_slot(0);
    buginf("lost");
    own_slot(OWN_SLOT);
    put("debug", "a file where the folder belongs");
    buginf("lost");
    EXPECT_EQ("a file where the folder belongs", content_of("debug"));
}

// Files that are turned over

class TurnedOver : public Diagnostics
{
protected:
    // As if that many bytes were written already.
    void fill(const std::string &name, std::uint64_t bytes) const
    {
        put(name, "the oldest line\n");
        fs::resize_file(slot_file(name), bytes);
    }
    bool has(const std::string &name) const { return fs::exists(slot_file(name)); }
};

TEST_F(TurnedOver, FullFileBecomesTheOlderOneInThePlaceOfAnEarlierOne)
{
    fill("debug/output", LINE_FILE_LIMIT_BYTES - 10);
    put("debug/output.1", "from an earlier time");
    buginf("the next line");
    EXPECT_EQ(fs::file_size(slot_file("debug/output.1")), LINE_FILE_LIMIT_BYTES - 10);
    const auto lines = lines_of("debug/output");
    ASSERT_EQ(1U, lines.size());
    EXPECT_EQ("the next line", after_time(lines[0]));
    fill("syslog", LINE_FILE_LIMIT_BYTES);
    vesk_syslog(2, "the next message", "X", 2);
    EXPECT_EQ(1U, lines_of("syslog").size());
    EXPECT_EQ(fs::file_size(slot_file("syslog.1")), LINE_FILE_LIMIT_BYTES);
}

TEST_F(TurnedOver, FileIsFilledToTheLimitFirst)
{
    const std::string line = "0000-00-00T00:00:00.000000Z x\n";
    fill("debug/output", LINE_FILE_LIMIT_BYTES - line.size());
    buginf("x");
    EXPECT_EQ(fs::file_size(slot_file("debug/output")), LINE_FILE_LIMIT_BYTES);
    EXPECT_FALSE(has("debug/output.1"));
    buginf("x");
    EXPECT_EQ(fs::file_size(slot_file("debug/output")), line.size());
    EXPECT_TRUE(has("debug/output.1"));
}

TEST_F(TurnedOver, ProcessesThatFindItFullTogetherLoseNoLine)
{
    constexpr unsigned ROUNDS = 25;
    constexpr unsigned CHILDREN = 4;
    for (unsigned round = 0; round < ROUNDS; ++round) {
        fill("debug/output", LINE_FILE_LIMIT_BYTES);
        int gate[2];
        ASSERT_EQ(0, ::pipe2(gate, O_CLOEXEC));
        std::vector<pid_t> children;
        for (unsigned child = 0; child < CHILDREN; ++child) {
            children.push_back(::fork());
            if (children.back() == 0) {
                char byte = 0;
                ::close(gate[1]);
                (void)!::read(gate[0], &byte, 1);
                buginf("of child");
                ::_exit(0);
            }
        }
        ::close(gate[0]);
        ::close(gate[1]); // all begin
        for (const pid_t child : children)
            ASSERT_EQ(child, ::waitpid(child, nullptr, 0));
        ASSERT_GE(fs::file_size(slot_file("debug/output.1")), LINE_FILE_LIMIT_BYTES) << "the full file is lost";
        std::uint64_t bytes = fs::file_size(slot_file("debug/output.1")) - LINE_FILE_LIMIT_BYTES;
        if (has("debug/output"))
            bytes += fs::file_size(slot_file("debug/output"));
        ASSERT_EQ(bytes, CHILDREN * std::string("0000-00-00T00:00:00.000000Z of child\n").size());
    }
}

TEST_F(TurnedOver, FileThatAnotherProcessHasTurnedOverIsLeftAlone)
{
    fill("syslog", LINE_FILE_LIMIT_BYTES);
    const unique_fd full(::open(slot_file("syslog").c_str(), O_WRONLY | O_CLOEXEC));
    fs::rename(slot_file("syslog"), slot_file("syslog.1"));
    put("syslog", "fresh");
    turn_over_line_file("slots/5/syslog", full.get());
    EXPECT_EQ("fresh", content_of("syslog"));
    EXPECT_EQ(fs::file_size(slot_file("syslog.1")), LINE_FILE_LIMIT_BYTES);
}

TEST_F(TurnedOver, FileThatCannotBeTurnedOverGoesOn)
{
    fill("debug/output", LINE_FILE_LIMIT_BYTES);
    fs::create_directories(slot_file("debug/output.1/in the way"));
    buginf("the next line");
    EXPECT_GT(fs::file_size(slot_file("debug/output")), LINE_FILE_LIMIT_BYTES);
    EXPECT_TRUE(content_of("debug/output").ends_with("the next line\n"));
}

TEST_F(TurnedOver, ProcessThatWasStoppedWithTheLockStopsNobody)
{
    fill("debug/output", LINE_FILE_LIMIT_BYTES);
    const unique_fd holder(::open(slot_file("debug/output").c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(0, ::flock(holder.get(), LOCK_EX));
    EXPECT_EQ(0, in_child([] {
                  ::alarm(10);
                  buginf("goes to the full file");
                  return 0;
              }));
    EXPECT_TRUE(content_of("debug/output").ends_with("goes to the full file\n"));
    EXPECT_FALSE(has("debug/output.1"));
}

// History

class History : public Diagnostics
{
protected:
    static int32_t record(const std::string &text)
    {
        return sdwrap_hist_event(EVENT_TYPE, static_cast<std::uint32_t>(text.size()), text.c_str());
    }
    static std::vector<chassis_history_event> events()
    {
        std::vector<chassis_history_event> found;
        EXPECT_TRUE(chassis_read_history(OWN_SLOT, found)) << errno;
        return found;
    }
    static std::vector<std::string> texts()
    {
        std::vector<std::string> all;
        for (const auto &event : events())
            all.push_back(event.text);
        return all;
    }
};

TEST_F(History, OnlyTheDaemonsEventsAreAskedFor)
{
    EXPECT_EQ(0, sdwrap_hist_event_subtype_check(0x730000, 102));
    EXPECT_NE(0, sdwrap_hist_event_subtype_check(0x730000, 101));
    EXPECT_NE(0, sdwrap_hist_event_subtype_check(0x730001, 102));
}

TEST_F(History, EventTellsWhoWhenAndWhat)
{
    const auto before = static_cast<std::uint64_t>(::time(nullptr)) * 1000000000U;
    ASSERT_EQ(0, record("main.cpp:12 started"));
    const auto found = events();
    ASSERT_EQ(1U, found.size());
    EXPECT_EQ(1U, found[0].sequence);
    EXPECT_GE(found[0].time_ns, before);
    EXPECT_LT(found[0].time_ns, before + 60 * 1000000000ULL);
    EXPECT_EQ(static_cast<std::uint32_t>(::getpid()), found[0].pid);
    EXPECT_EQ(EVENT_TYPE, found[0].event_type);
    EXPECT_EQ("main.cpp:12 started", found[0].text);
}

TEST_F(History, TextEndsAtItsLengthItsTerminatorAndTheRecord)
{
    ASSERT_EQ(0, sdwrap_hist_event(EVENT_TYPE, 3, "abcdef"));
    ASSERT_EQ(0, sdwrap_hist_event(EVENT_TYPE, UINT32_MAX, "abc"));
    ASSERT_EQ(0, record(""));
    ASSERT_EQ(0, record(std::string(1000, 'x')));
    EXPECT_EQ((std::vector<std::string>{"abc", "abc", "", std::string(351, 'x')}), texts());
    EXPECT_NE(0, sdwrap_hist_event(EVENT_TYPE, 3, nullptr));
    EXPECT_EQ(EINVAL, errno);
}

TEST_F(History, RingKeepsTheLastThousandAndTwentyFour)
{
    for (unsigned number = 1; number <= 1500; ++number)
        ASSERT_EQ(0, record(std::to_string(number)));
    const auto found = events();
    ASSERT_EQ(1024U, found.size());
    for (std::size_t index = 0; index < found.size(); ++index) {
        EXPECT_EQ(477 + index, found[index].sequence);
        EXPECT_EQ(std::to_string(found[index].sequence), found[index].text);
    }
    EXPECT_EQ(64U + 1024U * 384U, fs::file_size(slot_file("history")));
}

TEST_F(History, ProcessesShareTheRingAndLoseNothing)
{
    ASSERT_EQ(0, record("parent"));
    std::vector<pid_t> children;
    for (unsigned child = 0; child < 4; ++child) {
        children.push_back(::fork());
        if (children.back() == 0) {
            for (unsigned number = 0; number < 200; ++number)
                (void)record(std::to_string(child) + "." + std::to_string(number));
            ::_exit(0);
        }
    }
    for (const pid_t child : children)
        ASSERT_EQ(child, ::waitpid(child, nullptr, 0));
    const auto all = texts();
    EXPECT_EQ(801U, all.size());
    EXPECT_EQ(801U, std::set<std::string>(all.begin(), all.end()).size());
}

TEST_F(History, EventsOutliveAKilledProcess)
{
    EXPECT_EQ(-1, in_child([] {
        (void)record("last words");
        ::raise(SIGKILL);
        return 0;
    }));
    EXPECT_EQ((std::vector<std::string>{"last words"}), texts());
    ASSERT_EQ(0, record("next process"));
    EXPECT_EQ((std::vector<std::string>{"last words", "next process"}), texts());
}

TEST_F(History, FileThatIsNoRingIsMadeAnew)
{
    for (const std::string &content :
         {std::string(), std::string("garbage"), std::string(64 + 1024 * 384, 'x'), std::string(1 << 20, '\0')}) {
        fs::remove(slot_file("history"));
        put("history", content);
        ::usleep(SEVERAL_TICKS_US);
        std::vector<chassis_history_event> found{{}};
        EXPECT_FALSE(chassis_read_history(OWN_SLOT, found));
        EXPECT_EQ(EBADMSG, errno);
        EXPECT_EQ(1U, found.size());
        ASSERT_EQ(0, record("fresh"));
        EXPECT_EQ((std::vector<std::string>{"fresh"}), texts());
    }
}

TEST_F(History, MappedFileMayBeCutRemovedOrSpoiled)
{
    ASSERT_EQ(0, record("one"));
    fs::resize_file(slot_file("history"), 10);
    ASSERT_EQ(0, record("two"));
    EXPECT_EQ((std::vector<std::string>{"two"}), texts());
    for (unsigned number = 0; number < 40; ++number)
        ASSERT_EQ(0, record("filling"));
    fs::resize_file(slot_file("history"), 4096); // the header stays, the next record has no page any more
    ASSERT_EQ(0, record("cut again"));
    EXPECT_EQ((std::vector<std::string>{"cut again"}), texts());
    fs::remove(slot_file("history"));
    ::usleep(SEVERAL_TICKS_US);
    ASSERT_EQ(0, record("three"));
    EXPECT_EQ((std::vector<std::string>{"three"}), texts());
    std::fstream(slot_file("history"), std::ios::binary | std::ios::in | std::ios::out) << "SPOILED!";
    ASSERT_EQ(0, record("four"));
    EXPECT_EQ((std::vector<std::string>{"four"}), texts());
}

TEST_F(History, IsRecordedWhileTheFileIsCutAgainAndAgain)
{
    const pid_t cutter = ::fork();
    if (cutter == 0) {
        for (;;) {
            (void)::truncate(slot_file("history").c_str(), 100);
            ::usleep(200);
        }
    }
    unsigned recorded = 0;
    for (unsigned number = 0; number < 20'000; ++number)
        recorded += record("event") == 0 ? 1 : 0;
    ::kill(cutter, SIGKILL);
    (void)::waitpid(cutter, nullptr, 0);
    EXPECT_GT(recorded, 1000U);
    ASSERT_EQ(0, record("last"));
    const auto found = texts();
    ASSERT_FALSE(found.empty());
    EXPECT_EQ(found.back(), "last");
}

TEST_F(History, SpoiledRecordsAreLeftOut)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (unsigned number = 0; number < 20; ++number)
        ASSERT_EQ(0, record("event " + std::to_string(number)));
    std::string ring = content_of("history");
    const std::size_t offset = 64 + 7 * 384 + random() % 384;
    ring[offset] = static_cast<char>(static_cast<unsigned char>(ring[offset]) ^ (1 + random() % 255));
    put("history", ring);
    const auto all = texts();
    EXPECT_EQ(19U, all.size()) << "byte " << offset;
    EXPECT_EQ(all.end(), std::find(all.begin(), all.end(), "event 7"));
}

TEST_F(History, FailsSoftlyWhereNoneCanBe)
{
    std::vector<chassis_history_event> found;
    EXPECT_FALSE(chassis_read_history(OWN_SLOT, found));
    EXPECT_EQ(ENOENT, errno);
    own_slot(9);
    EXPECT_NE(0, record("lost"));
    own_slot(0);
    EXPECT_NE(0, record("lost"));
    own_slot(OWN_SLOT);
    fs::create_directories(slot_file("history"));
    EXPECT_NE(0, record("lost"));
}

// Syslog

TEST_F(Diagnostics, SyslogAppendsALineWithTheExpandedMessage)
{
    vesk_syslog(5, "<<%%%s-%d-BIOS_DAEMON_PRI_BOOT>> System booted from Primary BIOS Flash", "BIOS_DAEMON", 5);
    vesk_syslog(2, "100%% sure\nforged", "BIOS_DAEMON", 2);
    const auto lines = lines_of("syslog");
    ASSERT_EQ(2U, lines.size());
    const std::string boot = "slot 5 severity 5 <<%BIOS_DAEMON-5-BIOS_DAEMON_PRI_BOOT>> System booted from "
                             "Primary BIOS Flash";
    EXPECT_EQ(boot, after_time(lines[0]));
    EXPECT_EQ("slot 5 severity 2 100% sure forged", after_time(lines[1]));
}

TEST_F(Diagnostics, SyslogWaitsForNoReaderOfAFifo)
{
    ASSERT_EQ(::mkfifo(slot_file("syslog").c_str(), 0600), 0);
    vesk_syslog(2, "lost", "X", 2);
    ASSERT_TRUE(fs::remove(slot_file("syslog")));
    vesk_syslog(2, "kept", "X", 2);
    EXPECT_EQ(1U, lines_of("syslog").size());
}

TEST_F(Diagnostics, SyslogTakesNothingFromNowhere)
{
    vesk_syslog(2, "%s-%d (%d) %s %n %", "X", 2);
    vesk_syslog(2, "[%s]", nullptr, 2);
    vesk_syslog(2, nullptr, "X", 2);
    const auto lines = lines_of("syslog");
    ASSERT_EQ(2U, lines.size());
    EXPECT_TRUE(lines[0].ends_with(" X-2 (%d) %s %n %")) << lines[0];
    EXPECT_TRUE(lines[1].ends_with(" []")) << lines[1];
    own_slot(9);
    vesk_syslog(2, "lost", "X", 2);
}

TEST_F(Diagnostics, SyslogLinesOfSeveralProcessesDoNotMix)
{
    std::vector<pid_t> children;
    for (unsigned child = 0; child < 4; ++child) {
        children.push_back(::fork());
        if (children.back() == 0) {
            for (unsigned number = 0; number < 100; ++number)
                vesk_syslog(2, "%s begin-end", "X", 2);
            ::_exit(0);
        }
    }
    for (const pid_t child : children)
        ASSERT_EQ(child, ::waitpid(child, nullptr, 0));
    const auto lines = lines_of("syslog");
    EXPECT_EQ(400U, lines.size());
    for (const std::string &line : lines)
        ASSERT_EQ("slot 5 severity 2 X begin-end", after_time(line));
}

TEST_F(Diagnostics, SyslogLevelComesFromTheSlotWhenThereIsOne)
{
    syslog_facility_t facility{"bios_daemon", 904, 2, 2};
    sdwrap_sys_facility = &facility;
    EXPECT_EQ(0, sdwrap_sys_init_helper(0, "bios_daemon", "BIOS Daemon", 904, 0, 0, 0));
    EXPECT_EQ(2, facility.current_level);
    for (const auto &[text, level] : {std::pair{"5\n", 5}, {"0\n", 0}, {"7\n", 7}, {"8\n", 7}, {"x\n", 7}}) {
        put("syslog_level", text);
        EXPECT_EQ(0, sdwrap_sys_init_helper(0, "bios_daemon", "BIOS Daemon", 904, 0, 0, 0));
        EXPECT_EQ(level, facility.current_level) << text;
    }
    EXPECT_EQ(2, facility.first_level);
}

TEST_F(Diagnostics, SyslogRegistrationNeedsAFacility)
{
    EXPECT_NE(0, sdwrap_sys_init_helper(0, "bios_daemon", "BIOS Daemon", 904, 0, 0, 0));
    EXPECT_EQ(EINVAL, errno);
}

} // namespace
