// A module that does not take the forwarded programming: the requester is told that it could not be sent.
#include <cerrno>

#include "bios_opcodes.h"
#include "bios_results.h"
#include "chassis_dir.h"
#include "chassis_fixture.h"
#include "held_locks.h"
#include "played_module.h"

namespace
{

constexpr unsigned ACTIVE = 1;
constexpr unsigned TARGET = 3;
constexpr std::int32_t NO_ANSWER = -1; // what the transport returns then, with errno

class ForwardingRefused : public chassis_test
{
protected:
    void insert_line_card(bool serves, const std::string &answers = "daemon")
    {
        insert({.slot = ACTIVE});
        insert({.slot = TARGET,
                .role = "none",
                .in_tree = nullptr,
                .serves = serves,
                .kind = "linecard",
                .answers = answers});
    }
    // Nothing was programmed, nobody waits, nothing is locked.
    void expect_not_sent(const programming &seen, const std::string &told) const
    {
        EXPECT_EQ(seen.answer, 0U) << seen;
        EXPECT_EQ(seen.result, std::optional<std::uint32_t>(BIOS_ERR_NOT_SENT)) << seen;
        EXPECT_EQ(seen.module, std::optional<std::uint32_t>(TARGET));
        EXPECT_TRUE(seen.progress.empty()) << seen;
        EXPECT_EQ(lines_with(ACTIVE, told), 1U) << told;
        EXPECT_EQ(lines_with(ACTIVE, "MTS_OPC_BIOS_PROGRAMMING_DONE"), 0U);
        EXPECT_EQ(lines_with(ACTIVE, "Got ret=40710007 from prog modules call"), 1U);
        EXPECT_EQ(locks_held(), held_locks());
        EXPECT_EQ(flash_of(ACTIVE) == old_image().bytes, true);
        EXPECT_EQ(flash_of(TARGET) == old_image().bytes, true);
        expect_tidy(ACTIVE);
    }
    static std::string no_answer(int error)
    {
        return "Could not send bios upgrade cmd to the modules err=" + std::to_string(error) +
               " ret=" + std::to_string(NO_ANSWER);
    }
};

class ForwardingRefusedWithStatus : public ForwardingRefused, public testing::WithParamInterface<std::uint32_t>
{
};

} // namespace

TEST_P(ForwardingRefusedWithStatus, IsReportedAsNotSent)
{
    insert_line_card(false);
    up();
    played_module target(chassis_directory(), TARGET);
    requester asking;
    programming seen = asking.start(TARGET);
    ASSERT_TRUE(target.await_request(MTS_OPC_BIOS_PROGRAMMING_START));
    EXPECT_EQ(locks_held(), (held_locks{{0x101, ACTIVE}, {0x302, ACTIVE}})) << "a line card has another node id";
    target.answer(GetParam());
    asking.await_end(seen);
    expect_not_sent(seen, " ret=" + std::to_string(static_cast<std::int32_t>(GetParam())));
}

INSTANTIATE_TEST_SUITE_P(Statuses, ForwardingRefusedWithStatus,
                         testing::Values(static_cast<std::uint32_t>(BIOS_ERR_BUSY),
                                         static_cast<std::uint32_t>(BIOS_NOT_NEEDED), 1U),
                         [](const testing::TestParamInfo<std::uint32_t> &row) {
                             return std::to_string(row.param);
                         });

TEST_F(ForwardingRefused, ByAModuleThatGoesAwayInsteadOfAnswering)
{
    insert_line_card(false);
    up();
    played_module target(chassis_directory(), TARGET);
    requester asking;
    programming seen = asking.start(TARGET);
    ASSERT_TRUE(target.await_request(MTS_OPC_BIOS_PROGRAMMING_START));
    target.leave();
    asking.await_end(seen);
    expect_not_sent(seen, no_answer(ECONNRESET));
}

TEST_F(ForwardingRefused, ByAModuleThatDoesNotServeTheRequest)
{
    insert_line_card(true, "short");
    up();
    expect_not_sent(program(TARGET), no_answer(EOPNOTSUPP));
    EXPECT_EQ(lines_with(TARGET, "rejects opcode 4791"), 1U);
}

TEST_F(ForwardingRefused, ByAModuleThatNeverAnswers)
{
    insert_line_card(true, "silent");
    limit_waits(2);
    up();
    expect_not_sent(program(TARGET), no_answer(MTS_ERRNO_TIMED_OUT));
    EXPECT_EQ(lines_with(TARGET, "keeps silent to opcode 4791"), 1U);
}

// A daemon that cannot tell its own card's id ends over the request.
TEST_F(ForwardingRefused, ByADaemonThatEndsOverIt)
{
    insert_line_card(true);
    up();
    ASSERT_TRUE(chassis_write_value(chassis_inventory_path(TARGET, "module_info_error"), EIO));
    expect_not_sent(program(TARGET), no_answer(ECONNRESET));
    EXPECT_EQ(lines_with(TARGET, "get sw card id failed"), 1U);
    EXPECT_TRUE(
        wait_until([&] { return lines_with(TARGET, "bios_daemon ended with exit status 48") == 1; })); // 0x40710030
}

// The active supervisor's daemon would go on without an image: it is not offered the request.
TEST_F(ForwardingRefused, ByACardThatCannotMapTheUri)
{
    insert_line_card(true);
    up();
    EXPECT_EQ(program(TARGET, {.uri = "nowhere:image.bin"}).answer, BIOS_ERR_URI);
    EXPECT_EQ(lines_with(ACTIVE, "Unable to get tagetfs path for the URI"), 0U);
    EXPECT_EQ(lines_with(ACTIVE, "locking module here"), 0U);
    EXPECT_EQ(program(TARGET, {.uri = "nowhere:image.bin", .via = TARGET}).answer, BIOS_ERR_URI);
    EXPECT_EQ(lines_with(TARGET, "Unable to get tagetfs path for the URI"), 1U);
    EXPECT_EQ(lines_with(TARGET, "Mark in-progress here"), 0U);
    EXPECT_EQ(locks_held(), held_locks());
}
