// What an agent answers, byte by byte, out of what is known of its card.
#include <gtest/gtest.h>

#include <ctime>

#include "agent_requests.h"
#include "bios_header.h"
#include "bios_opcodes.h"
#include "endpoints.h"
#include "flash_event_log.h"
#include "flash_fixture.h"
#include "flash_progress_file.h"
#include "mts_tools.h"
#include "operator_locks.h"
#include "utc_time.h"
#include "wire_bytes.h"

using namespace wire;

namespace
{

class AgentRequests : public chassis_flash_fixture
{
protected:
    void SetUp() override
    {
        chassis_flash_fixture::SetUp();
        put("inventory/3/kind", "2\n");
        put("inventory/3/card_id", "90\n");
        put("inventory/27/kind", "1\n");
        put("inventory/27/card_id", "0xce\n");
        put("inventory/27/sup_state", "1\n");
    }
    void put(const std::string &file, const std::string &text) const
    {
        const std::filesystem::path path = dir + "/" + file;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << text;
    }
    static bytes answered(std::uint32_t opcode, const bytes &body = {})
    {
        const auto given = answer_to(opcode, body);
        EXPECT_TRUE(given);
        EXPECT_EQ(given ? given->status() : ~0U, 0U);
        return given ? given->payload() : bytes();
    }
    static std::uint32_t status_of(std::uint32_t opcode, const bytes &body)
    {
        const auto given = answer_to(opcode, body);
        EXPECT_TRUE(given && given->payload().empty());
        return given ? given->status() : 0;
    }
    static std::string answered_text(std::uint32_t opcode, const bytes &body)
    {
        const bytes payload = answered(opcode, body);
        return {payload.begin(), payload.end()};
    }
};

} // namespace

TEST_F(AgentRequests, ChassisIsTheOwnSlotAndEachModule)
{
    EXPECT_EQ(answered(4810), words({3, 2}) + words({3, 2, 90, 0}) + words({27, 1, 206, 1}));
}

TEST_F(AgentRequests, CardWithoutFlashesIsItsSlotAlone)
{
    EXPECT_EQ(answered(4811), words({3, 90, 17, 2, 0, 0, 0, 0}) + bytes(24));
}

TEST_F(AgentRequests, CardOfNoKnownFamilyHasNone)
{
    put("inventory/3/card_id", "9000\n");
    EXPECT_EQ(answered(4811), words({3, 9000, 0, 2, 0, 0, 0, 0}) + bytes(24));
}

TEST_F(AgentRequests, CardTellsSinceWhenItsDaemonServes)
{
    const std::string before = utc_now();
    const std::int32_t daemon =
        mts_bind(BIND_KIND, static_cast<std::int32_t>(BIOS_DAEMON_SAP), BIND_OPTIONS, "daemon");
    ASSERT_GE(daemon, 0);
    const bytes card = answered(4811);
    mts_unbind(daemon);
    ASSERT_EQ(card.size(), 56U);
    EXPECT_EQ(bytes(card.begin(), card.begin() + 32), words({3, 90, 17, 2, 0, 1, 0, 0}));
    const std::string since(card.begin() + 32, card.begin() + 52);
    EXPECT_GE(since, before.substr(0, 17)) << "the same minute at least";
    EXPECT_LE(since, utc_now());
    EXPECT_EQ(bytes(card.begin() + 52, card.end()), bytes(4));
    EXPECT_EQ(answered(4811), words({3, 90, 17, 2, 0, 0, 0, 0}) + bytes(24));
}

TEST_F(AgentRequests, CardHasARecordForEachFlash)
{
    create_flash(0);
    create_flash(1, {.size_bytes = 32 << 10, .sector_bytes = 8 << 10, .page_bytes = 256});
    put("slots/3/flash/alternate/programming", "");
    put("slots/3/flash/alternate/wear", "erases 4294967298\nprograms 2\nreads 3\n");
    const bytes card = answered(4811);
    ASSERT_EQ(card.size(), 56U + 2 * 80U);
    EXPECT_EQ(bytes(card.begin(), card.begin() + 56), words({3, 90, 17, 2, 0, 0, 2, 0}) + bytes(24));
    EXPECT_EQ(bytes(card.begin() + 56, card.begin() + 136),
              words({0, 64 << 10, 4 << 10, 0, 1, 0, 0, 0}) + bytes(24) + words({0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(bytes(card.begin() + 136, card.begin() + 200),
              words({1, 32 << 10, 8 << 10, AGENT_FLASH_MARKED, 1, 0, 0, 0}) + bytes(24) + words({1, 2}));
}

TEST_F(AgentRequests, CardTellsHowFarTheLastProgrammingCame)
{
    create_flash();
    const flash_progress_line line = {BIOS_PHASE_WRITE, 43, 2, 17, "2026-01-31T11:00:00Z"};
    write_flash_file("progress", flash_progress_format(line));
    const bytes card = answered(4811);
    EXPECT_EQ(bytes(card.begin() + 68, card.begin() + 56 + 56),
              words({AGENT_FLASH_HAS_PROGRESS, 2, 43, 2, 17}) + text_field("2026-01-31T11:00:00Z", 24));
}

TEST_F(AgentRequests, VersionIsReadFromTheFlash)
{
    flash_bytes image(SMALL_FLASH.size_bytes, 0xff);
    ASSERT_TRUE(bios_header_write({.major = 3, .minor = 5, .month = 9, .day = 17, .year = 12}, image.data()));
    create_flash(0, SMALL_FLASH, image);
    create_flash(1);
    EXPECT_EQ(answered_text(4812, words({0})), "v3.5.0(09/17/12)");
    EXPECT_EQ(answered_text(4812, words({1})), "") << "a blank flash has none";
}

TEST_F(AgentRequests, EventsAreThoseBehindASequenceNumber)
{
    create_flash();
    const flash_folder folder = open_flash_folder(TEST_SLOT, 0);
    for (unsigned count = 0; count < 3; ++count)
        flash_event_append(folder, {.slot = TEST_SLOT, .kind = flash_event_kind::cut_off});
    const std::string all = answered_text(4813, words({0, 0, 0}));
    EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 3);
    EXPECT_EQ(all, text_of_flash_file("events"));
    const std::string last = answered_text(4813, words({0, 0, 2}));
    EXPECT_EQ(flash_event_parse(last.substr(0, last.size() - 1))->sequence, 3U);
    EXPECT_EQ(answered_text(4813, words({0, 1, 0})), "") << "behind 4294967296";
}

TEST_F(AgentRequests, LogFaultsAreTheLinesThatAreNoEvents)
{
    create_flash();
    const flash_folder folder = open_flash_folder(TEST_SLOT, 0);
    (void)flash_event_append(folder, {.slot = TEST_SLOT, .kind = flash_event_kind::cut_off});
    EXPECT_EQ(answered(4864, words({0})), bytes());
    write_flash_file("events", text_of_flash_file("events") + "nothing\nnothing\n" + text_of_flash_file("events"));
    write_flash_file("lost_events", "00000000000000000001 0000000005 full \n");
    EXPECT_EQ(answered(4864, words({0})), words({1, 0, 0, 2, 0, 2, 0, 0, //
                                                 3, 0, 0, 1, 0, 4, 0, 1, //
                                                 7, 0, 0, 5, 0, 0, 0, 1}));
    EXPECT_EQ(status_of(4864, words({2})), 0x40720002U);
}

TEST_F(AgentRequests, TotalsAreThoseOfTheEvents)
{
    create_flash();
    flash_event_append(open_flash_folder(TEST_SLOT, 0), {.slot = TEST_SLOT, .kind = flash_event_kind::cut_off});
    const flash_event_totals totals = flash_event_totals_parse(answered_text(4814, words({0})));
    EXPECT_EQ(totals.cut_off, 1U);
    EXPECT_EQ(totals.sequence, 1U);
}

// The digest of 4 bytes of 0xff, of an erased flash of 64 KiB.
TEST_F(AgentRequests, DigestIsOfTheFirstBytesAndWhetherTheRestIsErased)
{
    create_flash(0);
    const bytes digest = {0xad, 0x95, 0x13, 0x1b, 0xc0, 0xb7, 0x99, 0xc0, 0xb1, 0xaf, 0x47,
                          0x7f, 0xb1, 0x4f, 0xcf, 0x26, 0xa6, 0xa9, 0xf7, 0x60, 0x79, 0xe4,
                          0x8b, 0xf0, 0x90, 0xac, 0xb7, 0xe8, 0x36, 0x7b, 0xfd, 0x0e};
    EXPECT_EQ(answered(4818, words({0, 0, 4})), digest + words({1, 0}));
    put("slots/3/flash/primary/programming", "");
    EXPECT_EQ(answered(4818, words({0, 0, 4})), digest + words({1, 1}));
    EXPECT_EQ(status_of(4818, words({0, 0, 65537})), 0x40720001U);
    EXPECT_EQ(status_of(4818, words({0, 1, 0})), 0x40720001U);
    EXPECT_EQ(status_of(4818, words({2, 0, 4})), 0x40720002U);
}

TEST_F(AgentRequests, FlashThatTheCardHasNotIsSaidSo)
{
    for (const std::uint32_t instance : {0U, 2U, 0xffffffffU}) {
        EXPECT_EQ(status_of(4812, words({instance})), 0x40720002U) << instance;
        if (instance < 2)
            continue;
        EXPECT_EQ(status_of(4813, words({instance, 0, 0})), 0x40720002U) << instance;
        EXPECT_EQ(status_of(4814, words({instance})), 0x40720002U) << instance;
    }
}

TEST_F(AgentRequests, BodyOfAnotherLengthIsRefused)
{
    for (const std::uint32_t opcode :
         {4810U, 4811U, 4812U, 4813U, 4814U, 4815U, 4816U, 4817U, 4818U, 4860U, 4861U, 4863U}) {
        const std::size_t wanted = opcode == 4812 || opcode == 4814   ? 4
                                   : opcode == 4813 || opcode == 4818 ? 12
                                   : opcode == 4817                   ? 236
                                   : opcode == 4863                   ? 8
                                                                      : 0;
        for (std::size_t length = 0; length <= 20; ++length) {
            if (length == wanted)
                continue;
            EXPECT_EQ(status_of(opcode, bytes(length)), 0x40720001U) << opcode << " with " << length << " bytes";
        }
    }
}

namespace
{

bytes operator_lock(std::uint32_t node_id, std::uint32_t number, const std::string &user = "ann",
                    const std::string &host = "far.away")
{
    return words({node_id, number}) + text_field(user, 32) + text_field(host, 64);
}

} // namespace

TEST_F(AgentRequests, LockOfAnOperatorIsKeptAndShown)
{
    std::filesystem::create_directories(dir + "/slots/3");
    const std::int64_t before = std::time(nullptr);
    const bytes told = answered(4870, operator_lock(0x302, 60));
    const std::int64_t after = std::time(nullptr);
    ASSERT_EQ(told.size(), 164U);
    const bytes head = words({0x302, 0, 0, 0, 0x4071000b});
    EXPECT_EQ(bytes(told.begin(), told.begin() + 20), head);
    EXPECT_EQ(bytes(told.begin() + 44, told.begin() + 140), text_field("ann", 32) + text_field("far.away", 64));
    const std::string since(told.begin() + 20, told.begin() + 40);
    const std::string until(told.begin() + 140, told.begin() + 160);
    EXPECT_TRUE(since >= utc_seconds(before) && since <= utc_seconds(after)) << since;
    EXPECT_TRUE(until >= utc_seconds(before + 60) && until <= utc_seconds(after + 60)) << until;
    EXPECT_EQ(answered(4815), told);

    EXPECT_EQ(status_of(4870, operator_lock(0x302, 60, "bob")), 0x40720004U);
    EXPECT_EQ(status_of(4870, operator_lock(0x302, 60, "ann", "near")), 0x40720004U);
    const bytes longer = answered(4870, operator_lock(0x302, 600));
    EXPECT_EQ(bytes(longer.begin(), longer.begin() + 140), bytes(told.begin(), told.begin() + 140));
    EXPECT_EQ(answered(4815), longer);

    EXPECT_EQ(status_of(4871, operator_lock(0x302, 0, "bob")), 0x40720004U);
    EXPECT_EQ(status_of(4871, operator_lock(0x303, 0)), 0x40720005U);
    EXPECT_EQ(answered(4871, operator_lock(0x302, 0)), bytes());
    EXPECT_EQ(status_of(4871, operator_lock(0x302, 0)), 0x40720005U);
    EXPECT_EQ(answered(4815), bytes());

    (void)answered(4870, operator_lock(0x302, 60));
    EXPECT_EQ(answered(4871, operator_lock(0x302, 1, "bob")), bytes()) << "by force";
}

TEST_F(AgentRequests, LockOfAnOperatorIsRefusedWhileTheFlashIsChanged)
{
    create_flash();
    EXPECT_EQ(answered(4870, operator_lock(0x302, 60)).size(), 164U);
    const auto writer = flash_device::open(0, flash_access::write);
    ASSERT_TRUE(writer);
    EXPECT_EQ(status_of(4870, operator_lock(0x302, 60)), 0x40720008U);
}

TEST_F(AgentRequests, LockOfAnOperatorHasASoundNameAndTime)
{
    std::filesystem::create_directories(dir + "/slots/3");
    const std::string longest_user(31, 'u');
    const std::string longest_host(63, 'h');
    EXPECT_EQ(answered(4870, operator_lock(0x302, 604'800, longest_user, longest_host)).size(), 164U);
    (void)answered(4871, operator_lock(0x302, 1));
    for (const std::uint32_t seconds : {0U, 604'801U, 0xffffffffU})
        EXPECT_EQ(status_of(4870, operator_lock(0x302, seconds)), 0x40720001U) << seconds;
    for (const std::string &name :
         {std::string(), std::string("a b"), std::string("a\nb"), std::string("\x9b"), std::string(64, 'x')}) {
        EXPECT_EQ(status_of(4870, operator_lock(0x302, 60, name.substr(0, 32))), 0x40720001U) << name;
        EXPECT_EQ(status_of(4870, operator_lock(0x302, 60, "ann", name)), 0x40720001U) << name;
        EXPECT_EQ(status_of(4871, operator_lock(0x302, 0, "ann", name)), 0x40720001U) << name;
    }
    EXPECT_EQ(status_of(4871, operator_lock(0x302, 2)), 0x40720001U);
    for (const std::size_t length : {0U, 103U, 105U}) {
        EXPECT_EQ(status_of(4870, bytes(length)), 0x40720001U);
        EXPECT_EQ(status_of(4871, bytes(length)), 0x40720001U);
    }
    EXPECT_EQ(answered(4815), bytes());
}

TEST(OperatorLocks, LinesThatAreNoneArePassedOver)
{
    const auto locks = parse_operator_locks("302 100 200 ann far\n"
                                            "502 100 200 bob near\n" // twice there: the last counts
                                            "502 100 201 ann far\n"
                                            "602 100 199 over now\n"
                                            "702 100 200 ann\n"
                                            "802 100 200 ann far away\n"
                                            "902 100 200  far\n"
                                            "x 100 200 ann far\n"
                                            "302 100 200 " +
                                                std::string(32, 'u') + " far\n\n302",
                                            199);
    ASSERT_EQ(locks.size(), 2U);
    EXPECT_EQ(locks[0].node_id, 0x302);
    EXPECT_EQ(locks[0].user, "ann");
    EXPECT_EQ(locks[0].host, "far");
    EXPECT_EQ(locks[0].until, "1970-01-01T00:03:20Z");
    EXPECT_EQ(locks[1].node_id, 0x502);
    EXPECT_EQ(locks[1].user, "ann");
    EXPECT_TRUE(parse_operator_locks("", 0).empty());
}

TEST_F(AgentRequests, UnknownOpcodeIsNotServed)
{
    for (const std::uint32_t opcode : {0U, 4791U, 4809U, 4819U, 4833U, 4869U, 4872U, 0xffffffffU})
        EXPECT_FALSE(answer_to(opcode, {})) << opcode;
}

TEST_F(AgentRequests, ChassisThatCannotBeReadIsSaidSo)
{
    std::filesystem::remove_all(dir + "/inventory");
    EXPECT_EQ(status_of(4810, {}), 0x40720003U);
}
