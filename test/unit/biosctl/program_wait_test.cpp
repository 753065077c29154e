// Which messages count while a programming is watched. The daemon asked is that of slot 27, about module 5.
#include <gtest/gtest.h>

#include "bios_opcodes.h"
#include "program_wait.h"

namespace
{

constexpr std::uint32_t NODE = 0x1b01;
constexpr mts_address_t DAEMON{NODE, 1010};
constexpr mts_address_t CHILD{NODE, 0x10003};

received_message progress(std::uint8_t phase, std::uint8_t percent, std::uint8_t attempt)
{
    return {4795, CHILD, {0, 0, 0, phase, 0, 0, 0, percent, 0, 0, 0, attempt}};
}

received_message notify(std::uint8_t module, mts_address_t source = DAEMON)
{
    return {4792, source, {0x40, 0x71, 0, 9, 0, 0, 0, module}};
}

} // namespace

TEST(ProgrammingWatch, TheNoticeAboutTheModuleEndsIt)
{
    programming_watch watch(NODE, 5);
    EXPECT_TRUE(watch.take(notify(5)));
    EXPECT_EQ(watch.result(), 0x40710009u);
}

TEST(ProgrammingWatch, ANoticeAboutAnotherModuleDoesNot)
{
    programming_watch watch(NODE, 5);
    EXPECT_FALSE(watch.take(notify(6)));
}

TEST(ProgrammingWatch, ANoticeFromAnotherCardOrAnotherEndpointDoesNot)
{
    programming_watch watch(NODE, 5);
    EXPECT_FALSE(watch.take(notify(5, {0x1c01, 1010})));
    EXPECT_FALSE(watch.take(notify(5, CHILD)));
}

TEST(ProgrammingWatch, TheMessageToTheRequesterEndsIt)
{
    programming_watch watch(NODE, 5);
    EXPECT_TRUE(watch.take({4793, DAEMON, {0x40, 0x71, 0, 0x0c}}));
    EXPECT_EQ(watch.result(), 0x4071000cu);
}

TEST(ProgrammingWatch, ShortPayloadsArePassedOver)
{
    programming_watch watch(NODE, 5);
    for (std::size_t length = 0; length < 12; ++length) {
        received_message message = progress(1, 100, 1);
        message.payload.resize(length);
        EXPECT_FALSE(watch.take(message));
        EXPECT_FALSE(watch.progress().seen) << length;
    }
    for (std::size_t length = 0; length < 8; ++length) {
        received_message message = notify(5);
        message.payload.resize(length);
        EXPECT_FALSE(watch.take(message)) << length;
    }
    for (std::size_t length = 0; length < 4; ++length)
        EXPECT_FALSE(watch.take({4793, DAEMON, std::vector<std::uint8_t>(length)})) << length;
}

TEST(ProgrammingWatch, ProgressKeepsTheHighestPercent)
{
    programming_watch watch(NODE, 5);
    EXPECT_FALSE(watch.take(progress(2, 60, 1)));
    EXPECT_FALSE(watch.take(progress(1, 10, 2)));
    EXPECT_EQ(watch.progress().percent, 60u);
    EXPECT_EQ(watch.progress().phase, 1u);
    EXPECT_EQ(watch.progress().attempt, 2u);
}

TEST(ProgrammingWatch, ProgressBeyondOneHundredPercentIsNoProof)
{
    programming_watch watch(NODE, 5);
    EXPECT_FALSE(watch.take(progress(3, 101, 1)));
    EXPECT_FALSE(watch.take({4795, CHILD, {0, 0, 0, 3, 0xff, 0xff, 0xff, 0xff, 0, 0, 0, 1}}));
    EXPECT_FALSE(watch.progress().seen);
}

TEST(ProgrammingWatch, ProgressFromAnotherCardIsNotOurs)
{
    programming_watch watch(NODE, 5);
    received_message message = progress(3, 100, 1);
    message.source.node = 0x502;
    EXPECT_FALSE(watch.take(message));
    EXPECT_FALSE(watch.progress().seen);
}

TEST(ProgrammingWatch, OtherOpcodesArePassedOver)
{
    programming_watch watch(NODE, 5);
    for (const std::uint32_t opcode : {0u, 4698u, 4791u, 4794u, 0xffffffffu}) {
        received_message message = notify(5);
        message.opcode = opcode;
        EXPECT_FALSE(watch.take(message)) << opcode;
    }
}
