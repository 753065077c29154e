// The programming request's body, byte by byte.
#include <cstring>

#include <gtest/gtest.h>

#include "program_request.h"

namespace
{

program_request_body literal(std::initializer_list<std::pair<std::size_t, std::uint8_t>> bytes)
{
    program_request_body body{};
    for (const auto &[offset, byte] : bytes)
        body[offset] = byte;
    return body;
}

} // namespace

TEST(ProgramRequest, HasTheSizeOfTheBody)
{
    EXPECT_EQ(encode_program_request({.module = 1}).size(), 529u);
}

TEST(ProgramRequest, WithoutAnImageSaysThatNoneIsNamed)
{
    EXPECT_EQ(encode_program_request({.module = 0xe8}), literal({{3, 0xe8}, {7, 1}}));
}

TEST(ProgramRequest, WithAnImageCarriesTheUriAndClearsTheFlag)
{
    EXPECT_EQ(encode_program_request({.module = 5, .image = "file:///a"}), literal({{3, 5},
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

TEST(ProgramRequest, CarriesTheTypeInItsLastByte)
{
    EXPECT_EQ(encode_program_request({.module = 5, .type = 0xff}), literal({{3, 5}, {7, 1}, {528, 0xff}}));
}

TEST(ProgramRequest, TheLongestUriStaysTerminated)
{
    for (const std::size_t length : {std::size_t{227}, std::size_t{228}, std::size_t{400}}) {
        const program_request_body body = encode_program_request({.module = 5, .image = std::string(length, 'u')});
        EXPECT_EQ(body[12 + 226], 'u');
        EXPECT_EQ(body[12 + 227], 0);
        EXPECT_EQ(body[240], 0);
    }
}
