// Type-length-value arrays in answers of the chassis's transport.
#include <gtest/gtest.h>

#include <iostream>
#include <random>

#include "free_block.h"
#include "tlv.h"
#include "transport_fixture.h"

using namespace chassis_test;

namespace
{

// The answer of a card that echoes, freed by its holder.
class TlvArray : public Transport
{
protected:
    void SetUp() override
    {
        Transport::SetUp();
        card_ = std::make_unique<card_process>(chassis_, 2, DAEMON_SAP, echo_for_ever);
    }

    const std::uint8_t *answer_of(const std::string &bytes)
    {
        auto length = static_cast<std::uint32_t>(bytes.size());
        void *response = nullptr;
        EXPECT_EQ(cmi_remote_req_resp(OPCODE, 3, bytes.data(), &response, &length, "", "", DAEMON_SAP, CARD_2,
                                      handle_, 5),
                  0);
        answer_.reset(static_cast<std::uint8_t *>(response));
        return answer_.get();
    }

    std::int32_t next(const void *array)
    {
        return tlv_aligned_array_get_next_tlv(array, &type_, &length_, &value_, 1, &cursor_);
    }

    std::string value() const { return {static_cast<const char *>(value_), length_}; }

    std::unique_ptr<card_process> card_;
    owned_block<std::uint8_t> answer_;
    std::uint16_t type_ = 0;
    std::uint16_t length_ = 0;
    const void *value_ = nullptr;
    std::uint32_t cursor_ = 0;
};

constexpr char TWO_RECORDS[] = "\0\0\0\2"
                               "\0\1\0\5hello\0\0\0"
                               "\0\2\0\3end";

TEST_F(TlvArray, GivesEachRecordAndThenEnds)
{
    const std::uint8_t *array = answer_of(std::string(TWO_RECORDS, sizeof TWO_RECORDS - 1));
    ASSERT_EQ(next(array), 0);
    EXPECT_EQ(type_, 1);
    EXPECT_EQ(value(), "hello");
    ASSERT_EQ(next(array), 0);
    EXPECT_EQ(type_, 2);
    EXPECT_EQ(value(), "end");
    EXPECT_NE(next(array), 0);
    EXPECT_NE(next(array), 0);
    EXPECT_EQ(type_, 2);
}

TEST_F(TlvArray, EndsWhereTheCountEndsThoughBytesFollow)
{
    std::string bytes(TWO_RECORDS, sizeof TWO_RECORDS - 1);
    bytes[3] = 1;
    const std::uint8_t *array = answer_of(bytes);
    EXPECT_EQ(next(array), 0);
    EXPECT_NE(next(array), 0);
}

TEST_F(TlvArray, EndsWhereTheAnswerEndsThoughTheCountGoesOn)
{
    std::string bytes(TWO_RECORDS, sizeof TWO_RECORDS - 1);
    bytes[0] = '\x7f';
    for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
        cursor_ = 0;
        const std::uint8_t *array = answer_of(bytes.substr(0, cut));
        int records = 0;
        while (next(array) == 0) {
            ++records;
            EXPECT_LE(static_cast<const std::uint8_t *>(value_) + length_, array + cut);
        }
        EXPECT_EQ(records, cut < 13 ? 0 : cut < 23 ? 1 : 2) << cut;
    }
}

TEST_F(TlvArray, CountsAgainWhenAnotherArrayWasWalkedInBetween)
{
    const std::string bytes(TWO_RECORDS, sizeof TWO_RECORDS - 1);
    const std::uint8_t *array = answer_of(bytes + '\0' + bytes);
    ASSERT_EQ(next(array), 0);
    const std::uint32_t cursor = cursor_;
    cursor_ = 0;
    ASSERT_EQ(next(array + bytes.size() + 1), 0);
    EXPECT_EQ(value(), "hello");
    cursor_ = cursor;
    ASSERT_EQ(next(array), 0);
    EXPECT_EQ(value(), "end");
    EXPECT_NE(next(array), 0);
    cursor_ = 5; // no record begins there
    EXPECT_NE(next(array), 0);
    cursor_ = 0xfffffff0;
    EXPECT_NE(next(array), 0);
}

TEST_F(TlvArray, RefusesAnArrayThatIsInNoAnswer)
{
    EXPECT_NE(next(TWO_RECORDS), 0);
    EXPECT_NE(next(nullptr), 0);
    const std::uint8_t *array = answer_of(std::string(TWO_RECORDS, sizeof TWO_RECORDS - 1));
    EXPECT_NE(next(array + sizeof TWO_RECORDS - 1), 0);
    EXPECT_NE(next(array + sizeof TWO_RECORDS - 3), 0);
}

TEST_F(TlvArray, SurvivesRandomArrays)
{
    const unsigned seed = std::random_device()();
    std::cout << "seed " << seed << '\n';
    std::mt19937 random(seed);
    const auto below = [&](std::uint32_t limit) { return static_cast<std::uint32_t>(random()) % limit; };
    for (int round = 0; round < 300; ++round) {
        std::string bytes(below(200), '\0');
        for (char &byte : bytes)
            byte = static_cast<char>(below(3) == 0 ? below(12) : 0);
        cursor_ = 0;
        const std::uint8_t *array = answer_of(bytes);
        while (next(array) == 0)
            ASSERT_LE(static_cast<const std::uint8_t *>(value_) + length_, array + bytes.size());
    }
}

} // namespace
