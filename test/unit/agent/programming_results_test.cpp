// How programmings have ended, as the daemons' notices tell it.
#include <gtest/gtest.h>

#include "programming_results.h"

namespace
{

constexpr mts_address_t DAEMON_27 = {27 * 256 + 1, 1010};
constexpr std::uint32_t AGENTS_SAP = 1011;

kept_notice notice(std::uint32_t opcode, mts_address_t source, std::vector<std::uint8_t> payload)
{
    return {"2026-01-31T11:00:00.123456Z", source, opcode, std::move(payload)};
}

} // namespace

TEST(ProgrammingResults, AreThoseOfTheDaemonsNotices)
{
    results_by_module results;
    take_result(results, notice(4792, DAEMON_27, {0x40, 0x71, 0, 0x0c, 0, 0, 0, 28}));
    ASSERT_EQ(results.size(), 1U);
    EXPECT_EQ(results[28].module.load(), 28U);
    EXPECT_EQ(results[28].result.load(), 0x4071000cU);
    EXPECT_EQ(results[28].reported_by_slot.load(), 27U);
    EXPECT_STREQ(field_text(results[28].time).text, "2026-01-31T11:00:00Z");
    take_result(results, notice(4792, DAEMON_27, {0, 0, 0, 0, 0, 0, 0, 28}));
    EXPECT_EQ(results[28].result.load(), 0U);
}

TEST(ProgrammingResults, AreNotMadeOutOfAnythingElse)
{
    results_by_module results;
    const std::vector<std::uint8_t> good{0, 0, 0, 0, 0, 0, 0, 28};
    take_result(results, notice(4793, DAEMON_27, good));
    take_result(results, notice(4792, {DAEMON_27.node, AGENTS_SAP}, good));
    take_result(results, notice(4792, DAEMON_27, {0, 0, 0, 0, 0, 0, 0}));
    take_result(results, notice(4792, DAEMON_27, {}));
    take_result(results, notice(4792, DAEMON_27, {0, 0, 0, 0, 0, 0, 0, 0}));
    take_result(results, notice(4792, DAEMON_27, {0, 0, 0, 0, 0, 0, 0, 233}));
    take_result(results, notice(4792, DAEMON_27, {0, 0, 0, 0, 1, 0, 0, 28}));
    EXPECT_TRUE(results.empty());
}
