// platform/tlv.h: the iterator over the records of another card's answer.
#include <cstdlib>

#include "cmi.h"
#include "contract_test.h"
#include "hex.h"
#include "tlv.h"

namespace
{

const std::string RECORD_1("\0\1\0\5hello\0\0\0", 12);
const std::string RECORD_2("\0\2\0\3end\0", 8);

std::string count_of(char records)
{
    return std::string("\0\0\0", 3) + records;
}

class TlvArray : public OtherCardTest
{
protected:
    void TearDown() override { std::free(answer_); }

    // Has the peer answer with these bytes.
    void fetch(const std::string &bytes)
    {
        peer_->tell("answer bytes " + hex_of(bytes));
        std::uint32_t length = 1;
        ASSERT_EQ(result_code(cmi_remote_req_resp(TEST_OPCODE, REQUEST_TYPE, "x", &answer_, &length, "", "",
                                                  peer_sap(), peer_node_, own_endpoint(), 20)),
                  0);
        ASSERT_EQ(length, bytes.size());
    }
    bool next() { return tlv_aligned_array_get_next_tlv(answer_, &type_, &length_, &value_, 1, &cursor_) == 0; }
    std::string value() const { return {static_cast<const char *>(value_), length_}; }

    void *answer_ = nullptr;
    std::uint16_t type_ = 77;
    std::uint16_t length_ = 78;
    const void *value_ = nullptr;
    std::uint32_t cursor_ = 0;
};

} // namespace

TEST_F(TlvArray, GivesOneRecordAfterTheOther)
{
    ASSERT_NO_FATAL_FAILURE(fetch(count_of(2) + RECORD_1 + RECORD_2));
    ASSERT_TRUE(next());
    EXPECT_EQ(type_, 1);
    EXPECT_EQ(value(), "hello");
    ASSERT_TRUE(next());
    EXPECT_EQ(type_, 2);
    EXPECT_EQ(value(), "end");
    EXPECT_FALSE(next());
}

TEST_F(TlvArray, GivesValuesThatLieInTheArray)
{
    ASSERT_NO_FATAL_FAILURE(fetch(count_of(2) + RECORD_1 + RECORD_2));
    ASSERT_TRUE(next());
    EXPECT_EQ(value_, static_cast<const char *>(answer_) + 8);
    ASSERT_TRUE(next());
    EXPECT_EQ(value_, static_cast<const char *>(answer_) + 20);
}

TEST_F(TlvArray, EndsWithTheCountThoughBytesFollow)
{
    ASSERT_NO_FATAL_FAILURE(fetch(count_of(1) + RECORD_1 + RECORD_2));
    EXPECT_TRUE(next());
    EXPECT_FALSE(next());
}

TEST_F(TlvArray, EndsWithTheAnswerThoughTheCountGoesOn)
{
    ASSERT_NO_FATAL_FAILURE(fetch(count_of(9) + RECORD_1));
    EXPECT_TRUE(next());
    EXPECT_FALSE(next());
}

TEST_F(TlvArray, GivesNoRecordWhoseValueReachesBeyondTheAnswer)
{
    ASSERT_NO_FATAL_FAILURE(fetch(count_of(1) + RECORD_1.substr(0, 7)));
    EXPECT_FALSE(next());
}

TEST_F(TlvArray, LeavesTheOutputsAsTheyWereWhenThereIsNoRecord)
{
    ASSERT_NO_FATAL_FAILURE(fetch(count_of(0)));
    EXPECT_FALSE(next());
    EXPECT_EQ(type_, 77);
    EXPECT_EQ(length_, 78);
    EXPECT_EQ(value_, nullptr);
}

TEST_F(TlvArray, StartsAgainWithACursorOf0)
{
    ASSERT_NO_FATAL_FAILURE(fetch(count_of(2) + RECORD_1 + RECORD_2));
    ASSERT_TRUE(next());
    cursor_ = 0;
    ASSERT_TRUE(next());
    EXPECT_EQ(value(), "hello");
}
