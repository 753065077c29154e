// The running version: set at start-up, kept across an in-service restart, answered apart from the flash's.
#include "running_version.h"

#include <cerrno>
#include <cstdlib>
#include <regex>
#include <sys/stat.h>

#include "bios_daemon_state.h"
#include "daemon_test.h"
#include "entry_list.h"

namespace
{

constexpr char record_file[] = "/mnt/pss/bios_run_ver";

// The flash's text is version_texts["flash"], or that of the queue of a test.
std::int32_t read_flash(std::int32_t handle, std::uint32_t flash_type, std::uint32_t flash_select,
                        char *version_out)
{
    const scripted_result result = platform().called(
        "read_flash", joined({std::to_string(handle), std::to_string(flash_type), std::to_string(flash_select)}));
    if (result.value == 0)
        (void)std::snprintf(version_out, 128, "%s", platform().version_texts["flash"].c_str());
    return static_cast<std::int32_t>(result.value);
}

std::int32_t read_second_flash(std::int32_t, std::uint32_t, std::uint32_t, char *version_out)
{
    (void)std::snprintf(version_out, 128, "%s", platform().version_texts["second flash"].c_str());
    return 0;
}

// A card with one row, whose flash holds v3.5.0(09/17/12).
class RunningVersion : public daemon_test
{
protected:
    RunningVersion()
    {
        platform().version_texts["flash"] = "v3.5.0(09/17/12)";
        insert_rows({row(read_flash)});
    }
    ~RunningVersion() override
    {
        std::free(std::exchange(self_card_id_tbl, nullptr));
        std::free(std::exchange(bios_flash_instance, nullptr));
        std::memset(running_version, 0, sizeof running_version);
        bios_programming_in_progress = 0;
        bios_cmd_program_in_progress = 0;
    }

    static bios_flash_entry row(bios_get_flash_version_op read)
    {
        bios_flash_entry entry{};
        entry.flash_type = 11;
        entry.get_flash_version = read;
        return entry;
    }
    static void insert_rows(std::initializer_list<bios_flash_entry> rows)
    {
        std::free(self_card_id_tbl);
        std::free(bios_flash_instance);
        self_card_id_tbl = entry_list(rows).release();
        bios_flash_instance = static_cast<char *>(std::malloc(rows.size() * 128 + (rows.size() == 0 ? 1 : 0)));
    }
    static std::string record_of(std::string text)
    {
        text.resize(128, '\0');
        return text;
    }
    static lines messages()
    {
        lines told = platform().logs();
        for (std::string &message : told) {
            message = std::regex_replace(message, std::regex("0x0x[0-9a-f]+"), "0xPOINTER");
            message =
                std::regex_replace(message, std::regex(R"(mod_get_bios_version:\d+:)"), "mod_get_bios_version:N:");
        }
        return told;
    }
    const std::string first_flash_log =
        "iter[0], after get_flash_version_func = 0xPOINTER, swid = 11, ver = v3.5.0(09/17/12)\\n";
};

TEST_F(RunningVersion, IsTheFlashsAtTheStart)
{
    EXPECT_EQ(mod_bios_version_init(7), 0);
    EXPECT_STREQ(running_version, "v3.5.0(09/17/12)");
    EXPECT_STREQ(bios_flash_instance, "v3.5.0(09/17/12)");
    EXPECT_EQ(platform().story({"read_flash", "fflush"}), (lines{"read_flash(7, 11, 1)", "fflush(stdout)"}));
    EXPECT_EQ(messages(), lines{first_flash_log});
    EXPECT_EQ(platform().calls("sysmgr_is_upgrade_restart"), lines{});
    EXPECT_EQ(platform().calls("system"), lines{});
}

TEST_F(RunningVersion, IsTheLastRowsOverTheTailOfALongerEarlierOne)
{
    insert_rows({row(read_flash), row(read_second_flash)});
    platform().version_texts["second flash"] = "v9.8";
    EXPECT_EQ(mod_bios_version_init(7), 0);
    EXPECT_STREQ(running_version, "v9.8.0(09/17/12)");
    EXPECT_STREQ(bios_flash_instance, "v3.5.0(09/17/12)");
    EXPECT_STREQ(bios_flash_instance + 128, "v9.8");
    EXPECT_EQ(messages(), (lines{first_flash_log,
                                 "iter[1], after get_flash_version_func = 0xPOINTER, swid = 11, ver = v9.8\\n"}));
}

TEST_F(RunningVersion, StaysAsItWasOnACardWithoutRows)
{
    insert_rows({});
    std::strcpy(running_version, "older");
    EXPECT_EQ(mod_bios_version_init(7), 0);
    EXPECT_STREQ(running_version, "older");
    EXPECT_EQ(messages(), lines{});
}

TEST_F(RunningVersion, OfAFlashThatCannotBeReadStaysInItsBuffers)
{
    std::memset(bios_flash_instance, 'A', 128);
    platform().every_result("read_flash", {-61, 0});
    bios_programming_in_progress = 0x5a5a5a5a;
    EXPECT_EQ(mod_bios_version_init(7), 0);
    EXPECT_EQ(bios_programming_in_progress, 0x5a5a5a5au);
    EXPECT_EQ(messages().size(), 1u);
}

TEST_F(RunningVersion, IsReadFromTheRecordAfterAnUpgradeRestart)
{
    platform().write_file(record_file, record_of("v1.0.0(01/01/10)"));
    platform().next_result("sysmgr_is_upgrade_restart", {1, 0});
    EXPECT_EQ(mod_bios_version_init(7), 0);
    EXPECT_EQ(std::string(running_version, 128), record_of("v1.0.0(01/01/10)"));
    EXPECT_EQ(messages().back(), "running version read from file = v1.0.0(01/01/10)");
    EXPECT_TRUE(platform().file_exists(record_file));
    EXPECT_EQ(platform().calls("system"), lines{});
    EXPECT_EQ(platform().calls("open"), lines{"open(\"/mnt/pss/bios_run_ver\", O_RDONLY)"});
}

TEST_F(RunningVersion, IsReadFromTheRecordAfterARestartOfAnyNonZeroKind)
{
    platform().write_file(record_file, record_of("v1.0.0"));
    platform().next_result("sysmgr_is_upgrade_restart", {-1, 0});
    EXPECT_EQ(mod_bios_version_init(7), 0);
    EXPECT_STREQ(running_version, "v1.0.0");
}

TEST_F(RunningVersion, IsCutAt127CharactersOfARecordWithoutTerminator)
{
    platform().write_file(record_file, std::string(200, 'r'));
    platform().next_result("sysmgr_is_upgrade_restart", {1, 0});
    EXPECT_EQ(mod_bios_version_init(7), 0);
    EXPECT_EQ(std::string(running_version, 128), record_of(std::string(127, 'r')));
}

TEST_F(RunningVersion, IgnoresAndKeepsAShortRecord)
{
    for (const std::size_t length : {0u, 1u, 127u}) {
        platform().write_file(record_file, std::string(length, 'r'));
        platform().next_result("sysmgr_is_upgrade_restart", {1, 0});
        EXPECT_EQ(mod_bios_version_init(7), 0);
        EXPECT_STREQ(running_version, "v3.5.0(09/17/12)");
        EXPECT_EQ(messages().back(), "Error reading file   /mnt/pss/bios_run_ver");
        EXPECT_TRUE(platform().file_exists(record_file));
    }
    EXPECT_EQ(platform().calls("system"), lines{});
}

TEST_F(RunningVersion, IsTheFlashsWhenTheRecordCannotBeOpened)
{
    platform().write_file(record_file, record_of("v1.0.0"));
    platform().next_result("sysmgr_is_upgrade_restart", {1, 0});
    platform().next_result("open", {-1, EACCES});
    EXPECT_EQ(mod_bios_version_init(7), 0);
    EXPECT_STREQ(running_version, "v3.5.0(09/17/12)");
    EXPECT_EQ(messages().back(), "Error opening file   /mnt/pss/bios_run_ver");
}

TEST_F(RunningVersion, IsTheFlashsAtAnOrdinaryStartThatDeletesTheRecord)
{
    platform().write_file(record_file, record_of("v1.0.0"));
    EXPECT_EQ(mod_bios_version_init(7), 0);
    EXPECT_STREQ(running_version, "v3.5.0(09/17/12)");
    EXPECT_EQ(platform().story({"sysmgr_is_upgrade_restart", "system"}),
              (lines{"sysmgr_is_upgrade_restart()", "system(\"unlink  /mnt/pss/bios_run_ver\")"}));
    EXPECT_EQ(messages().back(), "Deleting file  /mnt/pss/bios_run_ver");
}

TEST_F(RunningVersion, IsRecordedAsItsWholeBuffer)
{
    std::strcpy(running_version, "v3.5.0(09/17/12)");
    running_version[127] = 'z';
    record_running_version();
    EXPECT_EQ(platform().read_file(record_file), std::string(running_version, 128));
    EXPECT_EQ(messages(), lines{" file /mnt/pss/bios_run_ver Written successfully"});
    EXPECT_EQ(platform().calls("open"), lines{"open(\"/mnt/pss/bios_run_ver\", O_RDWR|O_CREAT|O_TRUNC)"});
    struct stat file {
    };
    ASSERT_EQ(::stat(platform().path(record_file).c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 0777u & ~0644u, 0u);
}

TEST_F(RunningVersion, ReplacesALongerRecord)
{
    platform().write_file(record_file, std::string(500, 'r'));
    record_running_version();
    EXPECT_EQ(platform().read_file(record_file), std::string(128, '\0'));
}

TEST_F(RunningVersion, IsNotRecordedWhenTheFileCannotBeOpened)
{
    std::filesystem::remove_all(platform().path("/mnt/pss"));
    record_running_version();
    EXPECT_EQ(messages(), lines{" Error opening file /mnt/pss/bios_run_ver .. Running version will not be recorded "
                                "for ISSU"});
    EXPECT_EQ(platform().calls("system"), lines{});
}

TEST_F(RunningVersion, IsNotRecordedWhenTheFileCannotBeWritten)
{
    for (const int written : {-1, 0, 127}) {
        platform().next_result("write", {written, ENOSPC});
        record_running_version();
        EXPECT_EQ(platform().calls("system").back(), "system(\"unlink /mnt/pss/bios_run_ver\")");
        EXPECT_EQ(messages().back(),
                  " Error  writing to file /mnt/pss/bios_run_ver  .. Running version will not be "
                  "recorded for ISSU");
    }
    EXPECT_FALSE(platform().logged(" file /mnt/pss/bios_run_ver Written successfully"));
}

TEST_F(RunningVersion, IsWithdrawnByItsCommand)
{
    withdraw_running_version();
    EXPECT_EQ(platform().calls("system"), lines{"system(\"unlink /mnt/pss/bios_run_ver\")"});
}

class VersionAnswer : public RunningVersion
{
protected:
    VersionAnswer()
    {
        std::memset(running_version, 'q', sizeof running_version);
        std::strcpy(running_version, "v1.0.0(running)");
        std::memset(answer, 'z', sizeof answer);
    }
    void ask(std::uint32_t type) { EXPECT_EQ(mod_get_bios_version(7, 0, type, answer), 0); }
    void expect_running()
    {
        EXPECT_EQ(std::string(answer, 128), std::string(running_version, 128));
        EXPECT_EQ(answer[128], 'z');
        EXPECT_EQ(platform().calls("read_flash"), lines{});
    }
    char answer[129];
};

TEST_F(VersionAnswer, OfType1IsTheRunningVersion)
{
    ask(1);
    expect_running();
    EXPECT_EQ(messages(), (lines{"mod_get_bios_version:N: prog_busy=0, inst=0, type=1\\n",
                                 "mod_get_bios_version:N: got version = v1.0.0(running)\\n"}));
    EXPECT_EQ(platform().calls("popen"), lines{});
}

TEST_F(VersionAnswer, OfAnyOtherTypeIsTheFlashs)
{
    for (const std::uint32_t type : {0u, 2u, 0xffffffffu}) {
        ask(type);
        EXPECT_STREQ(answer, "v3.5.0(09/17/12)");
    }
    EXPECT_EQ(platform().calls("read_flash"), lines(3, "read_flash(7, 11, 0)"));
    EXPECT_EQ(platform().calls("popen"), lines(3, "popen(\"pgrep bios_cmd\", \"r\")"));
    EXPECT_EQ(messages().back(), "mod_get_bios_version:N: got version = v3.5.0(09/17/12)\\n");
}

TEST_F(VersionAnswer, IsThatOfTheAskedRow)
{
    insert_rows({row(read_flash), row(read_second_flash)});
    platform().version_texts["second flash"] = "v9.8";
    EXPECT_EQ(mod_get_bios_version(7, 1, 0, answer), 0);
    EXPECT_STREQ(answer, "v9.8");
}

TEST_F(VersionAnswer, IsTheRunningVersionWhileAProgrammingIsInProgress)
{
    bios_programming_in_progress = 1;
    ask(0);
    expect_running();
    EXPECT_EQ(messages()[0], "mod_get_bios_version:N: prog_busy=1, inst=0, type=0\\n");
}

TEST_F(VersionAnswer, IsTheRunningVersionWhileACommandPrograms)
{
    platform().command_outputs.emplace_back("1234\n");
    ask(0);
    expect_running();
}

TEST_F(VersionAnswer, IsTheRunningVersionWhenACommandProgrammedAndCannotBeCheckedAgain)
{
    bios_cmd_program_in_progress = 1;
    platform().next_result("popen", {-1, ENOMEM});
    ask(0);
    expect_running();
}

TEST_F(VersionAnswer, IsEmptyWhenTheFlashCannotBeRead)
{
    platform().next_result("read_flash", {-61, 0});
    ask(0);
    EXPECT_EQ(std::string(answer, 128), std::string(128, '\0'));
    EXPECT_EQ(answer[128], 'z');
}

} // namespace
