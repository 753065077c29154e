// The messages about a programming, byte by byte.
#include <cstring>

#include <gtest/gtest.h>

#include "programming_messages.h"

namespace
{

using request_body = std::vector<std::uint8_t>;

request_body literal(std::initializer_list<std::pair<std::size_t, std::uint8_t>> bytes)
{
    request_body body(529);
    for (const auto &[offset, byte] : bytes)
        body[offset] = byte;
    return body;
}

} // namespace

TEST(ProgrammingRequest, HasTheSizeOfTheBody)
{
    EXPECT_EQ(encode_programming_request({.module = 1}).body.size(), 529u);
}

TEST(ProgrammingRequest, WithoutAnImageSaysThatNoneIsNamed)
{
    EXPECT_EQ(encode_programming_request({.module = 0xe8}).body, literal({{3, 0xe8}, {7, 1}}));
}

TEST(ProgrammingRequest, WithAnImageCarriesTheUriAndClearsTheFlag)
{
    EXPECT_EQ(encode_programming_request({.module = 5, .image = "file:///a"}).body, literal({{3, 5},
                                                                                             {12, 'f'},
                                                                                             {13, 'i'},
                                                                                             {14, 'l'},
                                                                                             {15, 'e'},
                                                                                             {16, ':'},
                                                                                             {17, '/'},
                                                                                             {18, '/'},
                                                                                             {19, '/'},
                                                                                             {20, 'a'}}));
}

TEST(ProgrammingRequest, CarriesTheTypeInItsLastByte)
{
    EXPECT_EQ(encode_programming_request({.module = 5, .type = 0xff}).body, literal({{3, 5}, {7, 1}, {528, 0xff}}));
}

TEST(ProgrammingRequest, TheLongestUriStaysTerminated)
{
    for (const std::size_t length : {std::size_t{227}, std::size_t{228}, std::size_t{400}}) {
        const request_body body = encode_programming_request({.module = 5, .image = std::string(length, 'u')}).body;
        EXPECT_EQ(body[12 + 226], 'u');
        EXPECT_EQ(body[12 + 227], 0);
        EXPECT_EQ(body[240], 0);
    }
}

TEST(ProgrammingNotices, AreTakenFromTheirWords)
{
    const auto progress = decode_progress({.opcode = 4795, .payload = {0, 0, 0, 2, 0, 0, 0, 43, 0, 0, 0, 1}});
    ASSERT_TRUE(progress);
    EXPECT_EQ(progress->phase, 2u);
    EXPECT_EQ(progress->percent, 43u);
    EXPECT_EQ(progress->attempt, 1u);
    const auto end = decode_end_notice({.opcode = 4792, .payload = {0x40, 0x71, 0, 9, 0, 0, 0, 5}});
    ASSERT_TRUE(end);
    EXPECT_EQ(end->result, 0x40710009u);
    EXPECT_EQ(end->module, 5u);
    EXPECT_EQ(decode_done({.opcode = 4793, .payload = {0x40, 0x71, 0, 9}}), 0x40710009u);
}

TEST(ProgrammingNotices, AreNoneWhenTheyAreTooShortOrCannotBe)
{
    EXPECT_FALSE(decode_progress({.opcode = 4795, .payload = {0, 0, 0, 2, 0, 0, 0, 43, 0, 0, 0}}));
    EXPECT_FALSE(decode_progress({.opcode = 4795, .payload = {0, 0, 0, 2, 0, 0, 0, 101, 0, 0, 0, 1}}));
    EXPECT_FALSE(decode_end_notice({.opcode = 4792, .payload = {0, 0, 0, 0, 0, 0, 0}}));
    EXPECT_FALSE(decode_done({.opcode = 4793, .payload = {0, 0, 0}}));
}
