// What the transport does to messages when a chassis's file transport/faults says so.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "message_faults.h"
#include "rest_of.h"
#include "transport_fixture.h"

using namespace chassis_test;

namespace
{

constexpr mts_address_t RECEIVER = {CARD_1, DAEMON_SAP};
constexpr unsigned MANY = 10'000;
constexpr std::uint32_t PAYLOAD_BYTES = 100;

std::vector<message_fault_order> drawn(const std::string &rules, mts_address_t receiver = RECEIVER)
{
    std::vector<message_fault_order> orders;
    for (std::uint64_t arrival = 1; arrival <= MANY; ++arrival)
        orders.push_back(message_fault_drawn(rules, receiver, arrival, PAYLOAD_BYTES));
    return orders;
}

std::vector<message_fault> faults_of(const std::vector<message_fault_order> &orders)
{
    std::vector<message_fault> faults;
    for (const message_fault_order &order : orders)
        faults.push_back(order.fault);
    return faults;
}

unsigned count_of(const std::vector<message_fault_order> &orders, message_fault fault)
{
    const auto faults = faults_of(orders);
    return static_cast<unsigned>(std::count(faults.begin(), faults.end(), fault));
}

TEST(TransportFaultRules, HappenAsOftenAsTheySay)
{
    EXPECT_EQ(count_of(drawn("lose 100% 1\n"), message_fault::lose), MANY);
    const unsigned twentieth = count_of(drawn("lose 5% 1"), message_fault::lose);
    EXPECT_GT(twentieth, MANY / 20 - 100);
    EXPECT_LT(twentieth, MANY / 20 + 100);
    EXPECT_EQ(count_of(drawn(""), message_fault::none), MANY);
}

TEST(TransportFaultRules, AreTheSameForTheSameSeedAndEndpointAndOthersElsewhere)
{
    const auto first = faults_of(drawn("double 30% 7"));
    EXPECT_EQ(faults_of(drawn("double 30% 7")), first);
    EXPECT_NE(faults_of(drawn("double 30% 8")), first);
    EXPECT_NE(faults_of(drawn("double 30% 7", {CARD_1, DAEMON_SAP + 1})), first);
    EXPECT_NE(faults_of(drawn("double 30% 7", {CARD_2, DAEMON_SAP})), first);
}

TEST(TransportFaultRules, DrawForThemselvesAlsoWithOneSeed)
{
    const auto orders = drawn("# everything at once\n\nlose 20% 3\ndouble 20% 3\ndelay 20% 3\ntruncate 20% 3\n");
    EXPECT_NEAR(count_of(orders, message_fault::lose), MANY * 0.2, 200);
    EXPECT_NEAR(count_of(orders, message_fault::twice), MANY * 0.2 * 0.8, 200);
    EXPECT_NEAR(count_of(orders, message_fault::delay), MANY * 0.2 * 0.8 * 0.8, 200);
    EXPECT_NEAR(count_of(orders, message_fault::truncate), MANY * 0.2 * 0.8 * 0.8 * 0.8, 200);
}

TEST(TransportFaultRules, DelayAndTruncateByAllThatTheyMay)
{
    std::set<std::uint32_t> delays;
    for (const message_fault_order &order : drawn("delay 100% 1 5"))
        delays.insert(order.delay_ms);
    EXPECT_EQ(delays, (std::set<std::uint32_t>{1, 2, 3, 4, 5}));
    const auto usual = drawn("delay 100% 1");
    EXPECT_TRUE(std::all_of(usual.begin(), usual.end(), [](const message_fault_order &order) {
        return order.delay_ms >= 1 && order.delay_ms <= 1000;
    }));
    std::set<std::uint32_t> left;
    for (const message_fault_order &order : drawn("truncate 100% 1"))
        left.insert(order.bytes_left);
    EXPECT_EQ(left.size(), PAYLOAD_BYTES);
    EXPECT_EQ(*left.rbegin(), PAYLOAD_BYTES - 1);
    EXPECT_EQ(message_fault_drawn("truncate 100% 1\nlose 100% 1", RECEIVER, 1, 0).fault, message_fault::lose)
        << "there is nothing to be cut off";
}

TEST(TransportFaultRules, AreNotTakenFromOtherLines)
{
    for (const char *line : {"lose", "lose 5%", "lose 5 1", "lose 0% 1", "lose 101% 1", "lose -5% 1", "lose nan% 1",
                             "lose 100% x", "lose 100% -1", "lose 100% 1 10", "none 100% 1", "eat 100% 1",
                             "delay 100% 1 0", "delay 100% 1 60001", "delay 100% 1 10 10", "# lose 100% 1"})
        EXPECT_EQ(message_fault_drawn(line, RECEIVER, 1, 1).fault, message_fault::none) << line;
    EXPECT_EQ(message_fault_drawn("lose\n \t\nlose 100%\t 1 \r\n", RECEIVER, 1, 1).fault, message_fault::lose);
}

class TransportFaults : public Transport
{
protected:
    void order(const std::string &rules) const
    {
        fs::create_directories(chassis_ + "/transport");
        std::ofstream(chassis_ + "/transport/faults") << rules;
    }
    void order_no_more() const { fs::remove(chassis_ + "/transport/faults"); }
    std::string told() const
    {
        std::ifstream file(chassis_ + "/transport/faulted");
        return rest_of(file);
    }
    std::vector<std::string> all_received(std::uint32_t wait_s = 0) const
    {
        std::vector<std::string> texts;
        while (const held_message message = received(handle_, wait_s))
            texts.push_back(text_of(message.get()));
        return texts;
    }
    void send_numbers(int count) const
    {
        // The queue of an endpoint has room for a few only: what comes is taken in between.
        for (int number = 0; number < count; ++number)
            ASSERT_EQ(send_text(handle_, CARD_1, DAEMON_SAP, std::to_string(number)), 0);
    }
};

TEST_F(TransportFaults, LoseAMessageAndTellIt)
{
    order("lose 100% 1\n");
    send_numbers(3);
    EXPECT_TRUE(all_received().empty());
    EXPECT_NE(told().find("00000101.000003f2 lose message 4791, 1 bytes\n"), std::string::npos) << told();
    const std::string text = told();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3);
    order_no_more();
    send_numbers(3);
    EXPECT_EQ(all_received(), (std::vector<std::string>{"0", "1", "2"}));
    EXPECT_EQ(told(), text);
}

TEST_F(TransportFaults, EndARequestThatIsLostInItsTimeOut)
{
    const card_process card(chassis_, 2, DAEMON_SAP, echo_for_ever);
    order("lose 100% 1\n");
    std::string text = "x";
    const auto start = steady::now();
    EXPECT_EQ(request(CARD_2, text, 1), -1);
    EXPECT_EQ(errno, MTS_ERRNO_TIMED_OUT);
    EXPECT_GE(steady::now() - start, 1s);
    EXPECT_LT(steady::now() - start, 2s);
    EXPECT_NE(told().find("00000202.000003f2 lose request"), std::string::npos) << told();
    order_no_more();
    EXPECT_EQ(request(CARD_2, text), 0) << std::strerror(errno);
}

TEST_F(TransportFaults, DoubleAMessage)
{
    order("double 100% 1\n");
    ASSERT_EQ(send_text(handle_, CARD_1, DAEMON_SAP, "one"), 0);
    EXPECT_EQ(all_received(), (std::vector<std::string>{"one", "one"}));
}

// What a request asks for is done once, and one answer is enough.
TEST_F(TransportFaults, DeliverARequestOnceThoughEverythingComesTwice)
{
    const card_process card(chassis_, 2, DAEMON_SAP, [](std::int32_t handle) -> int {
        for (int served = 1;; ++served) {
            const held_message message = received(handle, 60);
            const std::string count = std::to_string(served);
            cmi_response(count.data(), static_cast<std::uint32_t>(count.size()), handle, message.get(), 0);
        }
    });
    order("double 100% 1\n");
    for (int round = 1; round <= 200; ++round) {
        std::string text = "how often were you asked?";
        ASSERT_EQ(request(CARD_2, text), 0) << std::strerror(errno);
        ASSERT_EQ(text, std::to_string(round));
    }
    EXPECT_TRUE(all_received(1).empty()) << "the second answers were taken for something";
}

TEST_F(TransportFaults, DelayAMessageAndLetOthersOvertakeIt)
{
    order("delay 50% 1 300\n");
    send_numbers(8);
    std::vector<std::string> texts = all_received();
    EXPECT_FALSE(texts.empty());
    EXPECT_LT(texts.size(), 8U) << "nothing is late";
    const auto start = steady::now();
    while (texts.size() < 8 && steady::now() < start + 5s) {
        if (const held_message message = received(handle_, 1))
            texts.push_back(text_of(message.get()));
    }
    EXPECT_LT(steady::now() - start, 1s) << "the wait ends when a message is due, not when the limit is reached";
    EXPECT_FALSE(std::is_sorted(texts.begin(), texts.end()));
    std::sort(texts.begin(), texts.end());
    EXPECT_EQ(texts, (std::vector<std::string>{"0", "1", "2", "3", "4", "5", "6", "7"}));
}

TEST_F(TransportFaults, DropAnAnswerThatComesAfterItsTimeOut)
{
    const card_process card(chassis_, 2, DAEMON_SAP, echo_for_ever);
    order("delay 100% 5 1500\n");
    unsigned late = 0;
    for (int round = 0; round < 4; ++round) {
        std::string text = "slow";
        if (request(CARD_2, text, 1) != 0) {
            EXPECT_EQ(errno, MTS_ERRNO_TIMED_OUT);
            ++late;
        }
    }
    EXPECT_GT(late, 0U);
    order_no_more();
    EXPECT_TRUE(eventually([&] { // one that was silent is asked again when something of it has come
        std::string text = "quick";
        return request(CARD_2, text) == 0;
    }));
    const auto end = steady::now() + 3s; // everything has come by then
    while (steady::now() < end) {
        std::string text = "quick";
        ASSERT_EQ(request(CARD_2, text), 0);
        ASSERT_EQ(text, "quick");
        ::usleep(50'000);
    }
    EXPECT_TRUE(all_received().empty());
}

TEST_F(TransportFaults, TruncateAMessageToItsBeginning)
{
    order("truncate 100% 1\n");
    const std::string whole(300, 'a');
    for (int round = 0; round < 20; ++round) {
        ASSERT_EQ(send_text(handle_, CARD_1, DAEMON_SAP, whole), 0);
        const held_message message = received(handle_);
        ASSERT_TRUE(message);
        const std::string text = text_of(message.get());
        EXPECT_LT(text.size(), whole.size());
        EXPECT_EQ(text, whole.substr(0, text.size()));
        const auto *payload = static_cast<const char *>(mts_payload_get(message.get()));
        EXPECT_TRUE(std::all_of(payload + text.size(), payload + text.size() + MTS_READABLE_PAYLOAD_BYTES,
                                [](char byte) { return byte == 0; }));
        EXPECT_NE(told().find(", " + std::to_string(text.size()) + " left\n"), std::string::npos);
    }
}

TEST_F(TransportFaults, KeepNoMoreLateMessagesThanThereIsRoomFor)
{
    late_messages late;
    const auto message_of = [](std::uint32_t bytes) {
        mts_frame_header header{};
        header.payload_bytes = bytes;
        return mts_message_for(header);
    };
    EXPECT_EQ(late.add(message_of(MTS_MAX_PAYLOAD_BYTES), 30), nullptr);
    EXPECT_EQ(late.add(message_of(MTS_MAX_PAYLOAD_BYTES), 20), nullptr);
    EXPECT_NE(late.add(message_of(1), 10), nullptr) << "more than the largest two";
    EXPECT_EQ(late.next_due(100), 20);
    EXPECT_EQ(late.next_due(10), 10);
    EXPECT_EQ(late.take_due(19), nullptr);
    EXPECT_NE(late.take_due(20), nullptr);
    EXPECT_EQ(late.take_due(29), nullptr);
    EXPECT_NE(late.take_due(1000), nullptr);
    EXPECT_EQ(late.next_due(100), 100);
    for (unsigned number = 0; number < 1024; ++number)
        ASSERT_EQ(late.add(message_of(0), 1), nullptr);
    EXPECT_NE(late.add(message_of(0), 1), nullptr);
}

} // namespace
