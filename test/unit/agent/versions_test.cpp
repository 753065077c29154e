// The versions that an agent tells: in the flash just now, and what the card was started from.
#include <csignal>

#include <gtest/gtest.h>

#include "agent_requests.h"
#include "bios_header.h"
#include "boot_record.h"
#include "card_boot.h"
#include "cctrl.h"
#include "flash_event_log.h"
#include "flash_fixture.h"
#include "utc_time.h"
#include "wire_bytes.h"

using namespace wire;

namespace
{

constexpr const char *OLD = "v3.1.0(02/11/11)";
constexpr const char *NEW = "v3.5.0(09/17/12)";

flash_bytes contents_of(std::uint8_t minor)
{
    flash_bytes image(SMALL_FLASH.size_bytes, 0xff);
    const bool is_old = minor == 1;
    EXPECT_TRUE(bios_header_write({.major = 3,
                                   .minor = minor,
                                   .month = static_cast<std::uint8_t>(is_old ? 2 : 9),
                                   .day = static_cast<std::uint8_t>(is_old ? 11 : 17),
                                   .year = static_cast<std::uint8_t>(is_old ? 11 : 12)},
                                  image.data()));
    return image;
}

class AgentVersions : public chassis_flash_fixture
{
protected:
    void SetUp() override
    {
        chassis_flash_fixture::SetUp();
        std::filesystem::create_directories(dir + "/slots/3/registers");
        std::filesystem::create_directories(dir + "/inventory/3");
        std::ofstream(dir + "/inventory/3/kind") << "2\n";
        boot();
    }
    void boot() const { std::ofstream(dir + "/slots/3/booted") << utc_now_microseconds() << "\n"; }
    void hold(std::uint8_t minor) const
    {
        const flash_bytes contents = contents_of(minor);
        std::ofstream(flash_file("data"), std::ios::binary)
            .write(reinterpret_cast<const char *>(contents.data()), static_cast<std::streamsize>(contents.size()));
    }
    static void note(flash_event_kind kind, std::optional<std::uint32_t> result = {})
    {
        flash_event_append(open_flash_folder(TEST_SLOT, 0), {.slot = TEST_SLOT, .kind = kind, .result = result});
    }
    static bytes versions()
    {
        const auto given = answer_to(4860, {});
        EXPECT_TRUE(given && given->status() == 0);
        return given ? given->payload() : bytes();
    }
    static std::string running()
    {
        const bytes answer = versions();
        return text_from(bytes(answer.begin() + 16, answer.begin() + 144));
    }
    static std::string text_from(const bytes &field)
    {
        return {field.begin(), std::find(field.begin(), field.end(), 0)};
    }
    static std::vector<std::uint32_t> states()
    {
        const bytes answer = versions();
        std::vector<std::uint32_t> found;
        for (std::size_t place = 144; place + 136 <= answer.size(); place += 136)
            found.push_back(
                be32{answer[place + 4], answer[place + 5], answer[place + 6], answer[place + 7]}.load());
        return found;
    }
    static std::string version_of(unsigned place)
    {
        const bytes answer = versions();
        const auto begin = answer.begin() + 144 + 136 * place + 8;
        return text_from(bytes(begin, begin + 128));
    }
};

} // namespace

TEST_F(AgentVersions, AreARecordOfTheCardAndOneOfEachFlash)
{
    create_flash(0, SMALL_FLASH, contents_of(5));
    create_flash(1);
    note_boot();
    EXPECT_EQ(versions(), words({3, 0, 0, 2}) + text_field(NEW, 128) + words({0, 0}) + text_field(NEW, 128) +
                              words({1, AGENT_FLASH_SPARE}) + bytes(128));
}

TEST_F(AgentVersions, WithoutAFlashOrANoteNothingIsKnown)
{
    EXPECT_EQ(versions(), words({3, 0, 0xffffffff, 0}) + bytes(128));
    EXPECT_EQ(answer_to(4860, bytes(1))->status(), 0x40720001U);
}

TEST_F(AgentVersions, WhatRunsIsWhatTheCardWasStartedFrom)
{
    create_flash(0, SMALL_FLASH, contents_of(1));
    note_boot();
    hold(5);
    EXPECT_EQ(version_of(0), NEW);
    EXPECT_EQ(running(), OLD);
    note_boot(); // the agent was started again
    EXPECT_EQ(running(), OLD);
    boot();
    EXPECT_EQ(running(), "") << "not noted yet";
    note_boot();
    EXPECT_EQ(running(), NEW);
}

TEST_F(AgentVersions, WhatTheCardWasStartedFromIsNotGuessedAfterAProgramming)
{
    create_flash(0, SMALL_FLASH, contents_of(1));
    note(flash_event_kind::begun);
    note_boot();
    EXPECT_EQ(running(), "");
    ::usleep(2000); // events tell milliseconds
    boot();
    note_boot();
    EXPECT_EQ(running(), OLD) << "the programming was before the boot";
}

TEST_F(AgentVersions, TheRegisterSaysFromWhichFlashTheCardBoots)
{
    create_flash(0, SMALL_FLASH, contents_of(5));
    create_flash(1, SMALL_FLASH, contents_of(1));
    ASSERT_EQ(cctrl_write_reg3(186, 0xc00), 0);
    note_boot();
    ASSERT_EQ(cctrl_write_reg3(186, 0x800), 0); // counts from the next boot on
    const bytes answer = versions();
    EXPECT_EQ(bytes(answer.begin() + 8, answer.begin() + 12), words({1}));
    EXPECT_EQ(running(), OLD);
    boot();
    note_boot();
    EXPECT_EQ(running(), NEW);
}

TEST_F(AgentVersions, TheNextStartMayNeedTheFlashThatTheCardRunsFromUntilAnotherOneIsVerified)
{
    create_flash(0, SMALL_FLASH, contents_of(5));
    create_flash(1, SMALL_FLASH, contents_of(1));
    constexpr std::uint32_t SPARE = AGENT_FLASH_SPARE;
    EXPECT_EQ(states(), (std::vector<std::uint32_t>{0, 0})) << "it is not known what it runs from";
    note_boot();
    EXPECT_EQ(states(), (std::vector<std::uint32_t>{0, SPARE}));
    ASSERT_EQ(cctrl_write_reg3(186, 0xc00), 0);
    EXPECT_EQ(states(), (std::vector<std::uint32_t>{0, 0})) << "the register selects it";
    boot();
    note_boot();
    ASSERT_EQ(cctrl_write_reg3(186, 0x800), 0);
    EXPECT_EQ(states(), (std::vector<std::uint32_t>{0, 0})) << "the card runs from it";

    note(flash_event_kind::ended, 0x40710009);
    EXPECT_EQ(states(), (std::vector<std::uint32_t>{0, 0})) << "it has failed";
    ::usleep(2000); // events tell milliseconds
    note(flash_event_kind::ended, 0);
    EXPECT_EQ(states(), (std::vector<std::uint32_t>{0, SPARE}));
    note(flash_event_kind::begun);
    EXPECT_EQ(states(), (std::vector<std::uint32_t>{0, 0}));
    note(flash_event_kind::ended, 0);
    ::usleep(2000);
    boot();
    ASSERT_EQ(cctrl_write_reg3(186, 0xc00), 0);
    note_boot();
    ASSERT_EQ(cctrl_write_reg3(186, 0x800), 0);
    EXPECT_EQ(states(), (std::vector<std::uint32_t>{0, 0})) << "it was verified before the card was started";
}

TEST_F(AgentVersions, AFlashThatIsMarkedHasNone)
{
    create_flash(0, SMALL_FLASH, contents_of(5));
    write_flash_file("programming", "");
    note_boot();
    EXPECT_EQ(versions(), words({3, 0, 0, 1}) + bytes(128) + words({0, AGENT_FLASH_MARKED}) + bytes(128));
    EXPECT_TRUE(answer_to(4812, words({0}))->payload().empty());
}

TEST_F(AgentVersions, AFlashThatIsChangedHasNone)
{
    create_flash(0, SMALL_FLASH, contents_of(5));
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t writer = ::fork();
    if (writer == 0) {
        const auto flash = flash_device::open(0, flash_access::write);
        (void)!::write(ready[1], flash ? "1" : "0", 1);
        for (;;)
            ::pause();
    }
    char is_open = '0';
    ASSERT_EQ(::read(ready[0], &is_open, 1), 1);
    EXPECT_EQ(is_open, '1');
    EXPECT_EQ(version_of(0), "");
    EXPECT_TRUE(answer_to(4812, words({0}))->payload().empty());
    ASSERT_EQ(::kill(writer, SIGKILL), 0);
    ASSERT_EQ(::waitpid(writer, nullptr, 0), writer);
    EXPECT_EQ(version_of(0), NEW);
}

TEST_F(AgentVersions, ADamagedNoteIsNone)
{
    create_flash(0, SMALL_FLASH, contents_of(5));
    const std::string boot = card_boot_now().id;
    for (const std::string &text :
         {std::string(), "boot " + boot + "\nflash 2\nversion v\n", "boot " + boot + "\nflash 0\nversion v",
          "boot " + boot + "\nflash x\nversion v\n", std::string("boot other\nflash 0\nversion v\n"),
          "boot " + boot + "\nflash 0\nversion v\nmore\n", "flash 0\nboot " + boot + "\nversion v\n"}) {
        std::ofstream(dir + "/slots/3/started_from") << text;
        EXPECT_EQ(running(), "") << text;
        note_boot();
        EXPECT_EQ(running(), NEW) << text;
    }
}

TEST(BootRecord, ReadsWhatItWrites)
{
    const boot_record record = {.boot = "2026-01-31T23:59:59.000001Z", .flash = 1, .version = OLD};
    boot_record again;
    ASSERT_TRUE(boot_record_parse(boot_record_format(record), again));
    EXPECT_EQ(again, record);
    EXPECT_EQ(boot_record_format(record), "boot 2026-01-31T23:59:59.000001Z\nflash 1\nversion v3.1.0(02/11/11)\n");
}

TEST_F(AgentVersions, WithoutItsFileTheKernelSaysWhenTheCardHasBooted)
{
    std::filesystem::remove(dir + "/slots/3/booted");
    const card_boot boot = card_boot_now();
    EXPECT_FALSE(boot.id.empty());
    EXPECT_EQ(boot.id, card_boot_now().id);
    EXPECT_LT(boot.time, utc_now_microseconds());
    EXPECT_EQ(boot.time.size(), utc_now_microseconds().size());
}
