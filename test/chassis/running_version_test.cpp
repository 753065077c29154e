// The version that runs is not the one in the flash until the card restarts, and an in-service restart of the
// software alone does not change it: the record file carries it over.
#include "chassis_fixture.h"

#include <csignal>

#include "bios_opcodes.h"
#include "version_messages.h"
#include "wait_until.h"

namespace
{

constexpr const char *RECORD = "/mnt/pss/bios_run_ver";
constexpr std::size_t RECORD_BYTES = 128;

class RunningVersion : public chassis_test
{
protected:
    void SetUp() override
    {
        insert({.slot = 1});
        up();
    }
    void expect_told(const std::string &flash, const std::string &running)
    {
        requester asking;
        const request_reply reply = asking.ask(1, MTS_OPC_BIOS_GET_MOD_BIOS_VERSION, module_version_request(1));
        ASSERT_EQ(reply.error, 0);
        ASSERT_EQ(reply.payload.size(), 408U);
        EXPECT_EQ(reply.payload.substr(4), module_version_answer(1, OWN_CARD_ID, {flash, running}));
    }
    void restart(bool software_only)
    {
        const pid_t before = daemon_pid(1);
        const finished_program done = chassis(software_only ? std::vector<std::string>{"restart", "1", "--upgrade"}
                                                            : std::vector<std::string>{"restart", "1"});
        ASSERT_EQ(done.exit_code, 0) << done.errors;
        ASSERT_NE(daemon_pid(1), before);
    }
    bool status_is_serving() const { return file_content(slot_file(1, "state")).starts_with("serving"); }
    std::string record() const { return file_content(card_file(1, RECORD)); }
    void write_record(const std::string &content) const { write_file(card_file(1, RECORD), content); }
};

} // namespace

TEST_F(RunningVersion, IsTheOldOneUntilTheCardRestarts)
{
    const std::string &old_text = old_image().version;
    const std::string &new_text = new_image().version;
    expect_told(old_text, old_text);
    EXPECT_FALSE(card_has(1, RECORD));

    expect_programmed(program(1), 1, new_image());
    expect_told(new_text, old_text);
    EXPECT_EQ(record(), text_bytes(old_text, RECORD_BYTES));

    // The software alone, twice: the record is not used up.
    for (unsigned upgrade = 1; upgrade <= 2; ++upgrade) {
        restart(true);
        expect_told(new_text, old_text);
        EXPECT_EQ(lines_with(1, "running version read from file = " + old_text), upgrade);
        EXPECT_EQ(record(), text_bytes(old_text, RECORD_BYTES));
    }

    restart(false);
    expect_told(new_text, new_text);
    EXPECT_FALSE(card_has(1, RECORD)) << "a stale record outlived the restart";
    EXPECT_EQ(lines_with(1, std::string("Deleting file  ") + RECORD), 1U);

    // Nothing is left that an in-service restart could take up.
    restart(true);
    expect_told(new_text, new_text);
    expect_tidy(1);
}

// A daemon that dies is started again; the card, and so its BIOS, goes on running.
TEST_F(RunningVersion, IsTheOldOneAfterTheDaemonHasDied)
{
    expect_programmed(program(1), 1, new_image());
    const pid_t before = daemon_pid(1);
    ASSERT_EQ(::kill(before, SIGKILL), 0);
    ASSERT_TRUE(wait_until([&] { return daemon_pid(1) != 0 && daemon_pid(1) != before; }));
    ASSERT_TRUE(wait_until([&] { return status_is_serving(); }));
    expect_told(new_image().version, old_image().version);
    EXPECT_TRUE(card_has(1, RECORD));
    restart(false);
    expect_told(new_image().version, new_image().version);
}

// Programmed twice before the restart: what runs is still the first.
TEST_F(RunningVersion, StaysOverASecondProgramming)
{
    expect_programmed(program(1), 1, new_image());
    make_system_image(on_bootflash(1, "third.img"), 90, image("3.1"));
    expect_programmed(program(1, {.uri = "bootflash:third.img"}), 1, image("3.1"));
    expect_told(image("3.1").version, old_image().version);
    EXPECT_EQ(record(), text_bytes(old_image().version, RECORD_BYTES));
    restart(true);
    expect_told(image("3.1").version, old_image().version);
}

TEST_F(RunningVersion, RecordGoesWithAFailedProgramming)
{
    protect(1, "0\n");
    const programming seen = program(1);
    ASSERT_TRUE(seen.result.has_value()) << seen;
    EXPECT_NE(*seen.result, 0U);
    EXPECT_FALSE(card_has(1, RECORD));
    expect_told(old_image().version, old_image().version);
}

TEST_F(RunningVersion, ShortRecordIsNeitherUsedNorDeleted)
{
    const std::string cut = text_bytes("  v9.9.0(01/01/20)", RECORD_BYTES - 1);
    write_record(cut);
    restart(true);
    expect_told(old_image().version, old_image().version);
    EXPECT_EQ(lines_with(1, std::string("Error reading file   ") + RECORD), 1U);
    EXPECT_EQ(record(), cut);
}

TEST_F(RunningVersion, RecordWithoutEndIsCut)
{
    write_record(std::string(RECORD_BYTES, 'x'));
    restart(true);
    expect_told(old_image().version, std::string(RECORD_BYTES - 1, 'x'));
    restart(false);
    expect_told(old_image().version, old_image().version);
    EXPECT_FALSE(card_has(1, RECORD));
}
