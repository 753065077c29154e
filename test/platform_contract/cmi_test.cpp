// platform/cmi.h: requests to another card and their answers.
#include <cstdlib>
#include <cstring>

#include "cmi.h"
#include "contract_test.h"
#include "hex.h"

namespace
{

constexpr std::int32_t NOT_ASKED = 0x7fff;

class CmiRemoteReqResp : public OtherCardTest
{
protected:
    void TearDown() override { std::free(response_); }

    result_code request(const std::string &body, std::uint32_t wait_s = 20)
    {
        length_ = static_cast<std::uint32_t>(body.size());
        errno = 0;
        return cmi_remote_req_resp(TEST_OPCODE, REQUEST_TYPE, body.data(), &response_, &length_, "tag one",
                                   "tag two", peer_sap(), peer_node_, own_endpoint(), wait_s);
    }
    std::string answer() const
    {
        return response_ != nullptr ? std::string(static_cast<const char *>(response_), length_) : "";
    }

    void *response_ = nullptr;
    std::uint32_t length_ = 0;
};

using CmiResponse = CmiRemoteReqResp;

} // namespace

TEST_F(CmiRemoteReqResp, ReturnsTheAnswersPayloadAndLength)
{
    peer_->tell("answer echo 12");
    ASSERT_EQ(request("request body"), 0) << "errno " << errno;
    EXPECT_EQ(answer(), "request body");
    EXPECT_EQ(length_, 12U);
}

TEST_F(CmiRemoteReqResp, BringsOpcodeBodyAndOwnAddress)
{
    peer_->tell("answer echo 1");
    ASSERT_EQ(request("0123456789abcdef"), 0);
    EXPECT_EQ(peer_->answer(), "request 4791 " + std::to_string(own_node()) + " " +
                                   std::to_string(contract_sap(0)) + " " + hex_of("0123456789abcdef") +
                                   std::string(32, '0'));
}

TEST_F(CmiRemoteReqResp, SendsTheFirstTagAsBodyWhenTheRequestIsTheLengthItself)
{
    peer_->tell("answer echo 1");
    length_ = 7;
    ASSERT_EQ(
        result_code(cmi_remote_req_resp(TEST_OPCODE, REQUEST_TYPE, &length_, &response_, &length_,
                                        "tag one and more", "tag two", peer_sap(), peer_node_, own_endpoint(), 20)),
        0);
    const std::string line = peer_->answer();
    EXPECT_EQ(line.substr(line.rfind(' ') + 1, 14), hex_of("tag one"));
}

TEST_F(CmiRemoteReqResp, HasAnAnswerThatIsReadableAndZeroBeyondItsEnd)
{
    peer_->tell("answer bytes 414243");
    ASSERT_EQ(request("x"), 0);
    ASSERT_NE(response_, nullptr);
    EXPECT_EQ(std::string(static_cast<const char *>(response_), 641), "ABC" + std::string(638, '\0'));
}

TEST_F(CmiRemoteReqResp, TakesTagsOfAnyLength)
{
    const std::string tag(300, 't');
    peer_->tell("answer echo 4");
    length_ = 4;
    ASSERT_EQ(result_code(cmi_remote_req_resp(TEST_OPCODE, 3, "body", &response_, &length_, tag.c_str(),
                                              tag.c_str(), peer_sap(), peer_node_, own_endpoint(), 20)),
              0)
        << "errno " << errno;
    EXPECT_EQ(answer(), "body");
}

TEST_F(CmiRemoteReqResp, ReturnsTheAnswersStatusWhenItIsNot0)
{
    peer_->tell("answer status 1081147402"); // 0x4071000a
    EXPECT_EQ(request("x"), 0x4071000a);
}

TEST_F(CmiRemoteReqResp, FailsWhenTheReceiverRejects)
{
    peer_->tell("answer reject");
    EXPECT_EQ(request("x"), -1);
    EXPECT_EQ(errno, EOPNOTSUPP);
    EXPECT_EQ(response_, nullptr);
}

TEST_F(CmiRemoteReqResp, ReturnsWithErrno62WhenTheWaitLimitPasses)
{
    peer_->tell("answer silence");
    result_code result = NOT_ASKED;
    int failure = 0;
    const double waited_s = seconds_of([&] {
        result = request("x", 1);
        failure = errno;
    });
    EXPECT_EQ(result, -1);
    EXPECT_EQ(failure, 62);
    EXPECT_LT(waited_s, 10);
    EXPECT_EQ(response_, nullptr);
}

TEST_F(CmiRemoteReqResp, FailsWithEconnrefusedWhenNobodyHasTheAddress)
{
    length_ = 1;
    errno = 0;
    EXPECT_EQ(result_code(cmi_remote_req_resp(TEST_OPCODE, REQUEST_TYPE, "x", &response_, &length_, "", "",
                                              contract_sap(3), peer_node_, own_endpoint(), 20)),
              -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(response_, nullptr);
}

TEST_F(CmiRemoteReqResp, FailsWithEconnresetWhenTheReceiverGoesAway)
{
    peer_->tell("answer silence");
    peer_->tell("die"); // read only when the request has come
    EXPECT_EQ(request("x", 30), -1);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_EQ(response_, nullptr);
}

TEST_F(CmiRemoteReqResp, KeepsOtherMessagesForMtsRecv)
{
    peer_->tell("answer news " + std::to_string(contract_sap(0)));
    ASSERT_EQ(request("x"), 0);
    EXPECT_EQ(answer(), "answer");
    const held_message news = receive(10);
    ASSERT_TRUE(news);
    EXPECT_EQ(mts_opc_get(news.get()), 4795U);
    EXPECT_EQ(payload_of(news, 4), "news");
}

TEST_F(CmiRemoteReqResp, DropsAnAnswerThatComesWhenNobodyWaitsForIt)
{
    peer_->tell("answer late 3");
    ASSERT_EQ(request("first", 1), -1);
    ASSERT_NE(peer_->answer(), "") << "the peer has not answered";
    errno = 0;
    EXPECT_FALSE(receive(2)) << "mts_recv returns the answer, as if it were a message or a request";
    EXPECT_EQ(errno, 62);
}

TEST_F(CmiRemoteReqResp, DoesNotTakeALateAnswerForThatOfTheNextRequest)
{
    peer_->tell("answer late 3");
    ASSERT_EQ(request("first", 1), -1);
    ASSERT_NE(peer_->answer(), "") << "the peer has not answered";
    peer_->tell("answer bytes 32");
    ASSERT_EQ(request("second"), 0);
    EXPECT_EQ(answer(), "2");
}

TEST_F(CmiResponse, SendsNoPayloadForNullWhateverTheLengthSays)
{
    peer_->tell("answer nothing"); // a null payload with length 99
    ASSERT_EQ(request("x"), 0) << "errno " << errno;
    EXPECT_EQ(length_, 0U);
}
