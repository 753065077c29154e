// The x86n BIOS header: its bytes, its fields and its version text.
#include "bios_header.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace
{

using header_bytes = std::array<char, BIOS_HEADER_BYTES>;

constexpr bios_header SEPTEMBER = {.major = 3, .minor = 5, .month = 9, .day = 17, .year = 12};

header_bytes written(const bios_header &header)
{
    header_bytes bytes = {};
    EXPECT_TRUE(bios_header_write(header, bytes.data()));
    return bytes;
}

int number_at(const header_bytes &bytes, std::size_t offset)
{
    const std::string text(bytes.begin() + static_cast<std::ptrdiff_t>(offset), bytes.end());
    int number = -1;
    EXPECT_EQ(std::sscanf(text.c_str(), "%d", &number), 1);
    return number;
}

void expect_equal(const bios_header &left, const bios_header &right)
{
    EXPECT_EQ(left.major, right.major);
    EXPECT_EQ(left.minor, right.minor);
    EXPECT_EQ(left.month, right.month);
    EXPECT_EQ(left.day, right.day);
    EXPECT_EQ(left.year, right.year);
}

} // namespace

TEST(BiosHeader, IsWrittenAsTheseBytes)
{
    const header_bytes bytes = written(SEPTEMBER);
    const std::string expected = std::string("x86n BIOS header \n"
                                             ">>> KORVA SUP_TELMA_OR BIOS <<<\n"
                                             "date Sep 17, in the year 2012 v03.05") +
                                 std::string(41, ' ') + "\n";
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), expected);
}

TEST(BiosHeader, HasItsFieldsAtTheirOffsets)
{
    const header_bytes bytes = written(SEPTEMBER);
    EXPECT_EQ(std::memcmp(bytes.data() + 18, ">>> KORVA SUP_TELMA_OR BIOS <<<", 31), 0);
    EXPECT_EQ(std::memcmp(bytes.data() + 55, "Sep", 3), 0);
    EXPECT_EQ(number_at(bytes, 59), 17);
    EXPECT_EQ(number_at(bytes, 77), 12);
    EXPECT_EQ(number_at(bytes, 81), 3);
    EXPECT_EQ(number_at(bytes, 84), 5);
}

TEST(BiosHeader, KeepsItsNumbersApartAtTheirLargest)
{
    const header_bytes bytes = written({.major = 99, .minor = 9999, .month = 12, .day = 31, .year = 99});
    EXPECT_EQ(number_at(bytes, 59), 31);
    EXPECT_EQ(number_at(bytes, 77), 99);
    EXPECT_EQ(number_at(bytes, 81), 99);
    EXPECT_EQ(number_at(bytes, 84), 9999);
}

TEST(BiosHeader, IsReadAsItWasWritten)
{
    for (int month = 1; month <= 12; ++month) {
        for (int value : {0, 1, 7, 8, 9, 10, 28, 31, 50, 99}) {
            const bios_header header = {.major = value,
                                        .minor = value * 101,
                                        .month = month,
                                        .day = std::clamp(value, 1, 31),
                                        .year = 99 - value};
            bios_header read = {};
            ASSERT_TRUE(bios_header_read(written(header).data(), read));
            expect_equal(read, header);
        }
    }
}

TEST(BiosHeader, IsToldWithTwoLeadingBlanks)
{
    EXPECT_EQ(bios_header_text(SEPTEMBER), "  v3.5.0(09/17/12)");
    EXPECT_EQ(bios_header_text({.major = 12, .minor = 340, .month = 1, .day = 2, .year = 3}),
              "  v12.340.0(01/02/03)");
}

TEST(BiosHeader, RefusesValuesThatDoNotFit)
{
    const bios_header refused[] = {{.major = 100, .minor = 5, .month = 9, .day = 17, .year = 12},
                                   {.major = -1, .minor = 5, .month = 9, .day = 17, .year = 12},
                                   {.major = 3, .minor = 10000, .month = 9, .day = 17, .year = 12},
                                   {.major = 3, .minor = -1, .month = 9, .day = 17, .year = 12},
                                   {.major = 3, .minor = 5, .month = 0, .day = 17, .year = 12},
                                   {.major = 3, .minor = 5, .month = 13, .day = 17, .year = 12},
                                   {.major = 3, .minor = 5, .month = 9, .day = 0, .year = 12},
                                   {.major = 3, .minor = 5, .month = 9, .day = 32, .year = 12},
                                   {.major = 3, .minor = 5, .month = 9, .day = 17, .year = -1},
                                   {.major = 3, .minor = 5, .month = 9, .day = 17, .year = 100}};
    for (const bios_header &header : refused) {
        header_bytes bytes = {};
        bytes.fill('?');
        EXPECT_FALSE(bios_header_write(header, bytes.data())) << bios_header_text(header);
        EXPECT_TRUE(std::all_of(bytes.begin(), bytes.end(), [](char byte) { return byte == '?'; }));
    }
}

TEST(BiosHeader, IsNotFoundWithoutItsWholeSignature)
{
    for (std::size_t offset = 18; offset < 18 + 31; ++offset) {
        header_bytes bytes = written(SEPTEMBER);
        bytes[offset] ^= 1;
        bios_header header = {.major = 77, .minor = 77, .month = 77, .day = 77, .year = 77};
        EXPECT_FALSE(bios_header_read(bytes.data(), header)) << "offset " << offset;
        EXPECT_EQ(header.major, 77);
    }
}

TEST(BiosHeader, TellsAnUnknownMonthAsMinusOne)
{
    header_bytes bytes = written(SEPTEMBER);
    std::memcpy(bytes.data() + 55, "sep", 3);
    bios_header header = {};
    ASSERT_TRUE(bios_header_read(bytes.data(), header));
    EXPECT_EQ(bios_header_text(header), "  v3.5.0(-1/17/12)");
}

TEST(BiosHeader, ReadsFieldsWithoutDigitsAsZero)
{
    header_bytes bytes = written(SEPTEMBER);
    std::memset(bytes.data() + 59, 'x', bytes.size() - 59);
    bios_header header = {};
    ASSERT_TRUE(bios_header_read(bytes.data(), header));
    EXPECT_EQ(bios_header_text(header), "  v0.0.0(09/00/00)");
}

TEST(BiosHeader, SurvivesDigitsUpToItsEnd)
{
    header_bytes bytes = written(SEPTEMBER);
    std::memset(bytes.data() + 59, '9', bytes.size() - 59);
    bios_header header = {};
    ASSERT_TRUE(bios_header_read(bytes.data(), header));
    EXPECT_EQ(header.minor, 2147483647);
    EXPECT_LT(bios_header_text(header).size(), BIOS_HEADER_TEXT_BYTES);
}
