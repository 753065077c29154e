// Requests and answers over the chassis's transport.
#include <gtest/gtest.h>

#include "mts_endpoint.h"
#include "transport_fixture.h"

using namespace chassis_test;

namespace
{

using TransportRequests = Transport;

TEST_F(TransportRequests, ReturnsTheAnswerOfARequest)
{
    const card_process card(chassis_, 2, DAEMON_SAP, echo_for_ever);
    for (int round = 0; round < 100; ++round) {
        std::string text = "question " + std::to_string(round);
        const std::string sent = text;
        ASSERT_EQ(request(CARD_2, text), 0) << std::strerror(errno);
        ASSERT_EQ(text, sent);
    }
}

TEST_F(TransportRequests, PutsTheTagsIntoTheHeaderAndZerosBehindTheAnswer)
{
    const card_process card(chassis_, 2, DAEMON_SAP, [](std::int32_t handle) {
        const held_message message = received(handle);
        return cmi_response(mts_payload_get(message.get()), mts_payload_length(message.get()), handle,
                            message.get(), 0);
    });
    std::uint32_t length = 3;
    void *response = nullptr;
    ASSERT_EQ(cmi_remote_req_resp(OPCODE, 3, "xyz", &response, &length, "ABCD",
                                  "a tag that is longer than its field", DAEMON_SAP, CARD_2, handle_, 5),
              0);
    ASSERT_EQ(length, 115u);
    std::string expected(112, '\0');
    expected.replace(0, 4, "ABCD");
    expected.replace(32, 31, "a tag that is longer than its f");
    EXPECT_EQ(std::string(static_cast<char *>(response), length), expected + "xyz");
    for (std::size_t offset = 115; offset < 115 + 641; ++offset)
        ASSERT_EQ(static_cast<char *>(response)[offset], 0) << offset;
    std::free(response);
}

TEST_F(TransportRequests, TakesTheBodyFromTheTagForARequestWithoutBody)
{
    const card_process card(chassis_, 2, DAEMON_SAP, echo_for_ever);
    for (const std::uint32_t bytes : {4u, 2u, 9u, 0u}) {
        std::uint32_t length = bytes;
        void *response = nullptr;
        ASSERT_EQ(cmi_remote_req_resp(4794, 3, &length, &response, &length, "ABCD", "ABCD", DAEMON_SAP, CARD_2,
                                      handle_, 5),
                  0);
        EXPECT_EQ(length, bytes);
        ASSERT_NE(response, nullptr);
        EXPECT_EQ(std::string(static_cast<char *>(response), length),
                  std::string("ABCD\0\0\0\0\0", 9).substr(0, bytes));
        std::free(response);
    }
}

TEST_F(TransportRequests, CarriesALargeRequestAndAnswer)
{
    const card_process card(chassis_, 2, DAEMON_SAP, echo_for_ever);
    std::string text(MTS_MAX_PAYLOAD_BYTES - MTS_REQUEST_HEADER_BYTES, 'x');
    text.back() = 'y';
    const std::string sent = text;
    ASSERT_EQ(request(CARD_2, text, 60), 0) << std::strerror(errno);
    EXPECT_TRUE(text == sent);
    text.append(1, 'z');
    EXPECT_EQ(request(CARD_2, text), -1);
    EXPECT_EQ(errno, EMSGSIZE);
}

TEST_F(TransportRequests, ReturnsTheStatusOfTheAnswerAndItsPayload)
{
    const card_process card(chassis_, 2, DAEMON_SAP, [](std::int32_t handle) {
        for (const std::uint32_t status : {0x4071000au, 0xfffffff0u}) {
            const held_message message = received(handle);
            cmi_response("busy", 4, handle, message.get(), status);
        }
        const held_message message = received(handle);
        return cmi_response(nullptr, 8, handle, message.get(), 7);
    });
    std::string text = "x";
    EXPECT_EQ(request(CARD_2, text), 0x4071000a);
    EXPECT_EQ(text, "busy");
    EXPECT_EQ(request(CARD_2, text), -16);
    EXPECT_EQ(request(CARD_2, text), 7);
    EXPECT_EQ(text, "");
}

TEST_F(TransportRequests, FailsWhenTheRequestIsRejected)
{
    const card_process card(chassis_, 2, DAEMON_SAP, [](std::int32_t handle) {
        const held_message message = received(handle);
        return mts_respond_reject(handle, 0, 0, message.get(), 0, 0);
    });
    std::string text = "x";
    EXPECT_EQ(request(CARD_2, text), -1);
    EXPECT_EQ(errno, EOPNOTSUPP);
}

TEST_F(TransportRequests, AnswersOnlyRequests)
{
    ASSERT_EQ(send_text(handle_, CARD_1, DAEMON_SAP, "no request"), 0);
    const held_message message = received(handle_);
    EXPECT_EQ(mts_respond_reject(handle_, 0, 0, message.get(), 0, 0), 0);
    EXPECT_EQ(cmi_response("x", 1, handle_, message.get(), 0), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(received(handle_, 0));
}

TEST_F(TransportRequests, KeepsOtherMessagesThatArriveDuringARequest)
{
    const card_process card(chassis_, 2, DAEMON_SAP, [](std::int32_t handle) {
        const held_message message = received(handle);
        for (int number = 0; number < 5; ++number)
            send_text(handle, CARD_1, DAEMON_SAP, std::to_string(number), 4795);
        return cmi_response("done", 4, handle, message.get(), 0);
    });
    std::string text = "x";
    ASSERT_EQ(request(CARD_2, text), 0);
    EXPECT_EQ(text, "done");
    ASSERT_EQ(send_text(handle_, CARD_1, DAEMON_SAP, "later"), 0);
    for (const char *expected : {"0", "1", "2", "3", "4", "later"})
        EXPECT_EQ(text_of(received(handle_, 0).get()), expected);
}

TEST_F(TransportRequests, EndsTheWaitForAnAnswerAndDiscardsItWhenItIsLate)
{
    const card_process card(chassis_, 2, DAEMON_SAP, [](std::int32_t handle) {
        const held_message first = received(handle);
        const held_message second = received(handle);
        cmi_response("late", 4, handle, first.get(), 0);
        cmi_response("right", 5, handle, second.get(), 0);
        cmi_response("again", 5, handle, second.get(), 0);
        return send_text(handle, CARD_1, DAEMON_SAP, "end");
    });
    std::string text = "first";
    const auto start = steady::now();
    EXPECT_EQ(request(CARD_2, text, 1), -1);
    EXPECT_EQ(errno, 62);
    EXPECT_GE(steady::now() - start, 1s);
    EXPECT_LT(steady::now() - start, 2s);
    text = "second";
    EXPECT_EQ(request(CARD_2, text), 0);
    EXPECT_EQ(text, "right");
    EXPECT_EQ(text_of(received(handle_).get()), "end");
    EXPECT_FALSE(received(handle_, 0));
}

TEST_F(TransportRequests, WaitsNoLongerThanTheChassisAllows)
{
    fs::create_directories(chassis_ + "/transport");
    std::ofstream(chassis_ + "/transport/wait_limit_s") << "2\n";
    const card_process card(chassis_, 2, DAEMON_SAP, sleep_for_ever);
    std::string text = "x";
    auto start = steady::now();
    EXPECT_EQ(request(CARD_2, text, 1800), -1);
    EXPECT_EQ(errno, 62);
    EXPECT_GE(steady::now() - start, 2s);
    EXPECT_LT(steady::now() - start, 4s);
    start = steady::now();
    EXPECT_EQ(request(CARD_2, text, 1), -1);
    EXPECT_LT(steady::now() - start, 1900ms);
}

TEST_F(TransportRequests, ToolsWaitAsLongAsTheyWantWhateverTheChassisAllows)
{
    fs::create_directories(chassis_ + "/transport");
    std::ofstream(chassis_ + "/transport/wait_limit_s") << "1\n";
    const card_process card(chassis_, 2, DAEMON_SAP, [](std::int32_t handle) {
        const held_message message = received(handle);
        ::usleep(2'500'000); // two looks at the limit later
        return cmi_response("in the end", 10, handle, message.get(), 0);
    });
    attach(0);
    std::string text = "x";
    EXPECT_EQ(request(CARD_2, text), 0) << std::strerror(errno);
    EXPECT_EQ(text, "in the end");
}

TEST_F(TransportRequests, RefusesARequestWhereNobodyIs)
{
    std::string text = "x";
    EXPECT_EQ(request(CARD_2, text), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    card_process(chassis_, 2, DAEMON_SAP, sleep_for_ever).kill();
    EXPECT_EQ(request(CARD_2, text), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST_F(TransportRequests, NoticesThatTheReceiverDiedBeforeItAnswered)
{
    for (const bool orderly : {false, true}) {
        card_process card(
            chassis_, 2, DAEMON_SAP,
            [](std::int32_t handle) {
                (void)received(handle);
                return 0;
            },
            orderly);
        std::string text = "x";
        const auto start = steady::now();
        EXPECT_EQ(request(CARD_2, text, 60), -1);
        EXPECT_EQ(errno, ECONNRESET);
        EXPECT_LT(steady::now() - start, 3s);
    }
}

TEST_F(TransportRequests, NoticesThatTheReceiverWasReplaced)
{
    card_process first(chassis_, 2, DAEMON_SAP, [&](std::int32_t handle) {
        (void)received(handle);
        return 0;
    });
    const pid_t restarter = ::fork();
    if (restarter == 0) {
        if (chassis_attach(chassis_, 2) != 0)
            ::_exit(1);
        if (!eventually([] { return bind_endpoint(DAEMON_SAP) >= 0; }))
            ::_exit(1);
        sleep_for_ever(0);
    }
    std::string text = "x";
    const auto start = steady::now();
    EXPECT_EQ(request(CARD_2, text, 60), -1);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_LT(steady::now() - start, 3s);
    EXPECT_TRUE(mts_is_bound(CARD_2, DAEMON_SAP));
    ::kill(restarter, SIGKILL);
    ::waitpid(restarter, nullptr, 0);
}

TEST_F(TransportRequests, TakesTheAnswerOfAReceiverThatDiedAfterIt)
{
    card_process card(chassis_, 2, DAEMON_SAP, [](std::int32_t handle) {
        const held_message message = received(handle);
        ::usleep(1'300'000); // past the first look at the receiver
        return cmi_response("last words", 10, handle, message.get(), 0);
    });
    std::string text = "x";
    EXPECT_EQ(request(CARD_2, text, 60), 0);
    EXPECT_EQ(text, "last words");
}

TEST_F(TransportRequests, WaitsOnForAnAnswerAfterASignal)
{
    const card_process card(chassis_, 2, DAEMON_SAP, [](std::int32_t handle) {
        const held_message message = received(handle);
        ::usleep(400000);
        return cmi_response("yes", 3, handle, message.get(), 0);
    });
    const interruptions alarms;
    std::string text = "x";
    EXPECT_EQ(request(CARD_2, text), 0) << std::strerror(errno);
    EXPECT_EQ(text, "yes");
}

TEST_F(TransportRequests, DoesNotWaitLongerForAnAnswerBecauseOfOtherMessages)
{
    const card_process card(chassis_, 2, DAEMON_SAP, [](std::int32_t handle) {
        while (send_text(handle, CARD_1, DAEMON_SAP, "noise") == 0)
            continue;
        return 1;
    });
    std::string text = "x";
    const auto start = steady::now();
    EXPECT_EQ(request(CARD_2, text, 2), -1);
    EXPECT_EQ(errno, 62);
    EXPECT_LT(steady::now() - start, 4s);
}

TEST(SeenRequests, AreKnownWhateverOthersHaveAskedSince)
{
    mts_frame_header header{};
    header.kind = mts_frame_kind::request;
    header.source_node = CARD_1;
    const auto comes = [&](std::uint32_t sap, std::uint64_t id, mts_seen_requests &seen) {
        header.source_sap = sap;
        header.request_id = id;
        return seen.repeats(header);
    };
    mts_seen_requests seen;
    EXPECT_FALSE(comes(7, 5, seen));
    for (std::uint32_t other = 1; other < 64; ++other)
        EXPECT_FALSE(comes(100 + other, 5 + 64 * other, seen)) << other;
    EXPECT_TRUE(comes(7, 5, seen));
    EXPECT_FALSE(comes(8, 5, seen)) << "another's request of the same number";
}

TEST_F(TransportRequests, RefusesRequestsThatMeanNothing)
{
    std::uint32_t length = 1;
    void *response = nullptr;
    EXPECT_EQ(cmi_remote_req_resp(1, 4, "x", &response, &length, "", "", 1, CARD_2, handle_, 1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(cmi_remote_req_resp(1, 3, nullptr, &response, &length, "", "", 1, CARD_2, handle_, 1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(cmi_remote_req_resp(1, 3, "x", &response, &length, "", "", 1, CARD_2, 999, 1), -1);
    EXPECT_EQ(errno, EBADF);
}

} // namespace
