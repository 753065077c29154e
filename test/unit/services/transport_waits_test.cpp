// What the transport does about those who are gone, silent, or wait no more.
#include <gtest/gtest.h>

#include <sys/mman.h>

#include "agent_messages.h"
#include "bios_messages.h"
#include "bios_results.h"
#include "monotonic_clock.h"
#include "mts_endpoint.h"
#include "text_field.h"
#include "transport_fixture.h"

using namespace chassis_test;

namespace
{

constexpr std::uint32_t QUERY = MTS_OPC_BIOS_GET_LC_BIOS_VERSION;
constexpr std::uint32_t START = MTS_OPC_BIOS_PROGRAMMING_START;
constexpr std::uint32_t DONE = MTS_OPC_BIOS_PROGRAMMING_DONE;
constexpr std::uint32_t OTHER_REQUEST = MTS_OPC_BIOS_INSTALL_LOADER;

class TransportWaits : public Transport
{
protected:
    void fill_queue(std::uint32_t sap) const; // of an endpoint of card 1

    std::int32_t ask(std::uint32_t opcode, std::uint32_t wait_s) const
    {
        std::string body(sizeof(bios_programming_req_t), '\0');
        auto length = static_cast<std::uint32_t>(body.size());
        void *response = nullptr;
        const std::int32_t result = cmi_remote_req_resp(opcode, REQUEST_TYPE, body.data(), &response, &length, "",
                                                        "", DAEMON_SAP, CARD_2, handle_, wait_s);
        const int failure = errno;
        std::free(response);
        errno = failure;
        return result;
    }
};

// Not by one sender: what he has under way is limited, too.
void TransportWaits::fill_queue(std::uint32_t sap) const
{
    const auto send = [](const unique_fd &socket) { return ::send(socket.get(), "x", 1, MSG_DONTWAIT) == 1; };
    for (;;) {
        const unique_fd sender = raw_socket_to(CARD_1, sap);
        if (!send(sender))
            return;
        while (send(sender))
            continue;
    }
}

std::chrono::duration<double> seconds_of(const std::function<void()> &work)
{
    const auto begin = steady::now();
    work();
    return steady::now() - begin;
}

// Requests that a card has received, as it counts them in memory that it shares with the test.
class counted_requests
{
public:
    counted_requests()
        : count_(static_cast<int *>(
              ::mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)))
    {
    }
    ~counted_requests() { ::munmap(count_, sizeof(int)); }
    counted_requests(const counted_requests &) = delete;
    counted_requests &operator=(const counted_requests &) = delete;

    void add() const { __atomic_add_fetch(count_, 1, __ATOMIC_SEQ_CST); }
    int count() const { return __atomic_load_n(count_, __ATOMIC_SEQ_CST); }

private:
    int *count_;
};

int answer_and_count(std::int32_t handle, const counted_requests &requests)
{
    for (;;) {
        const held_message message = received(handle, 60);
        if (!message)
            continue;
        requests.add();
        cmi_response("", 0, handle, message.get(), 0);
    }
}

TEST_F(TransportWaits, ARequestWhoseWaitHasPassedIsNotServed)
{
    const counted_requests served;
    const card_process card(chassis_, 2, DAEMON_SAP,
                            [&](std::int32_t handle) { return answer_and_count(handle, served); });
    ASSERT_EQ(ask(OTHER_REQUEST, 5), 0);
    card.signal(SIGSTOP);
    EXPECT_EQ(ask(OTHER_REQUEST, 1), -1);
    EXPECT_EQ(errno, MTS_ERRNO_TIMED_OUT);
    card.signal(SIGCONT);
    EXPECT_EQ(ask(OTHER_REQUEST, 5), 0);
    EXPECT_EQ(served.count(), 2);
}

TEST_F(TransportWaits, ARequestWhoseSenderHasGoneIsNotServed)
{
    const counted_requests served;
    const card_process card(chassis_, 2, DAEMON_SAP,
                            [&](std::int32_t handle) { return answer_and_count(handle, served); });
    card.signal(SIGSTOP);
    {
        card_process client(chassis_, 1, -1, [](std::int32_t handle) {
            std::uint32_t length = 1;
            void *response = nullptr;
            return cmi_remote_req_resp(OTHER_REQUEST, REQUEST_TYPE, "x", &response, &length, "", "", DAEMON_SAP,
                                       CARD_2, handle, 60);
        });
        ::usleep(200'000);
        client.kill();
    }
    card.signal(SIGCONT);
    EXPECT_EQ(ask(OTHER_REQUEST, 5), 0);
    EXPECT_EQ(served.count(), 1);
}

TEST_F(TransportWaits, ACardWaitsTenSecondsForAQueryAndThenNotAtAll)
{
    const card_process card(chassis_, 2, DAEMON_SAP, echo_for_ever);
    card.signal(SIGSTOP);
    const auto first = seconds_of([&] { EXPECT_EQ(ask(QUERY, 1800), -1); });
    EXPECT_GE(first.count(), 10);
    EXPECT_LT(first.count(), 11.5);
    const auto further = seconds_of([&] {
        for (unsigned i = 0; i < 20; ++i) {
            EXPECT_EQ(ask(QUERY, 1800), -1);
            EXPECT_EQ(errno, MTS_ERRNO_TIMED_OUT);
        }
    });
    EXPECT_LT(further.count(), 0.5);
    EXPECT_EQ(ask(OTHER_REQUEST, 1), -1) << "what takes its time is asked for all the same";

    card.signal(SIGCONT);
    EXPECT_TRUE(eventually([&] { return ask(QUERY, 1800) == 0; }));
    EXPECT_EQ(ask(QUERY, 1800), 0);
}

TEST_F(TransportWaits, ASuccessorOfASilentPeerIsAskedAtOnce)
{
    auto silent = std::make_unique<card_process>(chassis_, 2, DAEMON_SAP, sleep_for_ever);
    EXPECT_EQ(ask(QUERY, 1), -1);
    EXPECT_EQ(errno, MTS_ERRNO_TIMED_OUT);
    silent.reset();
    const card_process card(chassis_, 2, DAEMON_SAP, echo_for_ever);
    EXPECT_EQ(ask(QUERY, 1), 0) << std::strerror(errno);
}

TEST_F(TransportWaits, ATaciturnPeerIsAskedAgainAfterASignOfLife)
{
    const card_process card(chassis_, 2, DAEMON_SAP, [](std::int32_t handle) -> int {
        for (unsigned number = 0;; ++number) { // the first one gets no answer
            const held_message message = received(handle, 60);
            if (message && number > 0)
                cmi_response("", 0, handle, message.get(), 0);
        }
    });
    EXPECT_EQ(ask(QUERY, 1), -1);
    EXPECT_EQ(ask(QUERY, 1), 0) << std::strerror(errno);
}

// A card that asks another one, while clients send it more requests than it keeps.
TEST_F(TransportWaits, WhatIsNotKeptIsRejected)
{
    constexpr unsigned REQUESTS = 3000;
    card_process flooded(chassis_, 2, DAEMON_SAP, [](std::int32_t handle) {
        std::uint32_t length = 1;
        void *response = nullptr;
        (void)cmi_remote_req_resp(OTHER_REQUEST, REQUEST_TYPE, "x", &response, &length, "", "", DAEMON_SAP, CARD_1,
                                  handle, 4); // no answer
        return echo_for_ever(handle);
    });
    const held_message question = received(handle_, 10);
    ASSERT_TRUE(question);

    card_process client(chassis_, 1, -1, [](std::int32_t handle) {
        mts_endpoint &endpoint = *mts_endpoint_of(handle);
        unsigned answers = 0;
        const auto take = [&](std::int64_t wait_us) {
            const std::int64_t now = monotonic_us();
            const auto message = mts_endpoint_receive(endpoint, mts_wanted::everything, now, now + wait_us);
            answers += message ? 1 : 0;
            return message != nullptr;
        };
        for (unsigned number = 1; number <= REQUESTS; ++number) {
            mts_frame_header header{};
            header.kind = mts_frame_kind::request;
            header.opcode = OTHER_REQUEST;
            header.request_id = number;
            static const std::string body(MTS_REQUEST_HEADER_BYTES, '\0');
            const mts_payload payload = {body.data(), MTS_REQUEST_HEADER_BYTES, nullptr, 0};
            if (mts_endpoint_send(endpoint, {CARD_2, DAEMON_SAP}, header, payload, nullptr) != 0)
                ++answers; // known not to be served
            while (take(0))
                continue;
        }
        while (answers < REQUESTS && take(10 * MICROSECONDS))
            continue;
        return answers == REQUESTS ? 0 : 1;
    });
    EXPECT_EQ(client.exit_code(), 0);
}

// Clients that ask and never read. A frame to each of them is an answer that finds their queue full.
TEST_F(TransportWaits, ClientsThatDoNotReadCostOthersLittle)
{
    constexpr std::uint32_t FIRST_SAP = 500;
    constexpr unsigned CLIENTS = 36;
    const auto answer = [this](std::uint32_t sap) {
        mts_frame_header header{};
        header.kind = mts_frame_kind::response;
        header.request_id = 1;
        return mts_endpoint_send(*mts_endpoint_of(handle_), {CARD_1, sap}, header, {}, nullptr);
    };
    std::vector<std::int32_t> silent;
    for (unsigned i = 0; i < CLIENTS; ++i) {
        silent.push_back(bind_endpoint(static_cast<std::int32_t>(FIRST_SAP + i)));
        fill_queue(FIRST_SAP + i);
    }
    const auto first = seconds_of([&] { EXPECT_EQ(answer(FIRST_SAP), -1); });
    EXPECT_EQ(errno, MTS_ERRNO_TIMED_OUT);
    EXPECT_GE(first.count(), 0.09);
    EXPECT_LT(first.count(), 0.15);
    for (unsigned round = 0; round < 2; ++round) {
        const auto all = seconds_of([&] {
            for (unsigned i = 1; i < CLIENTS; ++i)
                EXPECT_EQ(answer(FIRST_SAP + i), -1);
        });
        EXPECT_LT(all.count(), 1) << round;
    }
    for (const std::int32_t handle : silent)
        mts_unbind(handle);
}

// A module whose daemon takes a request to program and then does what the test wants.
class AwaitedCompletion : public TransportWaits
{
protected:
    // Its agent's answer to AGENT_OPC_GET_CARD and AGENT_OPC_GET_EVENTS.
    static int tell(std::int32_t handle, const std::string &events, bool has_writer)
    {
        for (;;) {
            const held_message message = received(handle, 60);
            if (!message)
                continue;
            std::string answer = events;
            if (mts_opc_get(message.get()) == AGENT_OPC_GET_CARD) {
                agent_card_t card{};
                agent_flash_t flash{};
                flash.pid = be32::of(41);
                flash.state = be32::of(has_writer ? AGENT_FLASH_HAS_WRITER | AGENT_FLASH_HAS_PROGRESS : 0);
                store_text(flash.since, "2026-01-31T23:59:59Z");
                answer.assign(reinterpret_cast<const char *>(&card), sizeof card);
                answer.append(reinterpret_cast<const char *>(&flash), sizeof flash);
            }
            cmi_response(answer.data(), static_cast<std::uint32_t>(answer.size()), handle, message.get(), 0);
        }
    }
    static int take_requests(std::int32_t handle)
    {
        for (;;) {
            if (const held_message message = received(handle, 60))
                cmi_response("", 0, handle, message.get(), 0);
        }
    }
    // What a waiting child receives within a time; none: nothing.
    std::optional<std::uint32_t> end_within(std::uint32_t wait_s) const
    {
        const auto deadline = steady::now() + std::chrono::seconds(wait_s);
        while (steady::now() < deadline) {
            const held_message message = received(handle_, 1);
            if (!message || mts_opc_get(message.get()) != DONE)
                continue;
            EXPECT_EQ(mts_payload_length(message.get()), sizeof(bios_programming_done_t));
            mts_address_t from{};
            EXPECT_EQ(mts_saddr_get(message.get(), &from), 0);
            EXPECT_EQ(from.node, CARD_2);
            return static_cast<bios_programming_done_t *>(mts_payload_get(message.get()))->result.load();
        }
        return std::nullopt;
    }

    static std::string ended(unsigned pid, const std::string &time, const std::string &result)
    {
        return R"({"time":")" + time + R"(","slot":2,"flash":"primary","sequence":17,"pid":)" +
               std::to_string(pid) + R"(,"event":"ended","result":")" + result + R"(","duration_ms":1520})" + "\n";
    }
};

TEST_F(AwaitedCompletion, IsTheModulesOwnWhenItReportsTheEnd)
{
    const card_process module(chassis_, 2, DAEMON_SAP, [](std::int32_t handle) {
        const held_message message = received(handle, 60);
        cmi_response("", 0, handle, message.get(), 0);
        ::usleep(1'500'000);
        mts_address_t asker{};
        (void)mts_saddr_get(message.get(), &asker);
        const bios_programming_done_t done{be32::of(0x4071000c)};
        (void)mts_send(handle, asker.node, asker.sap, DONE, &done, sizeof done, 0, 0, 0);
        return 0; // gone at once
    });
    ASSERT_EQ(ask(START, 1800), 0);
    EXPECT_EQ(end_within(5), std::optional<std::uint32_t>(0x4071000c));
    EXPECT_EQ(end_within(3), std::nullopt) << "it is reported once";
}

TEST_F(AwaitedCompletion, IsMadeWhenTheModulesDaemonIsGone)
{
    card_process module(chassis_, 2, DAEMON_SAP, take_requests);
    ASSERT_EQ(ask(START, 1800), 0);
    EXPECT_EQ(end_within(2), std::nullopt);
    module.kill();
    EXPECT_EQ(end_within(3), std::optional<std::uint32_t>(BIOS_ERR_NO_COMPLETION));
    EXPECT_EQ(end_within(3), std::nullopt) << "it is reported once";
}

TEST_F(AwaitedCompletion, IsMadeWhenAnotherDaemonHasTheAddress)
{
    card_process module(chassis_, 2, DAEMON_SAP, take_requests);
    ASSERT_EQ(ask(START, 1800), 0);
    module.kill();
    const card_process successor(chassis_, 2, DAEMON_SAP, take_requests);
    EXPECT_EQ(end_within(3), std::optional<std::uint32_t>(BIOS_ERR_NO_COMPLETION));
}

TEST_F(AwaitedCompletion, HasTheResultThatTheModulesAgentKnows)
{
    const std::string events = ended(41, "2026-01-31T23:40:59.123Z", "0x4071000b") +
                               ended(41, "2026-02-01T00:01:02.123Z", "0x4071000c") +
                               ended(42, "2026-02-01T00:01:03.123Z", "0x40710009");
    const card_process agent(chassis_, 2, AGENT_SAP,
                             [&](std::int32_t handle) { return tell(handle, events, true); });
    card_process module(chassis_, 2, DAEMON_SAP, take_requests);
    ASSERT_EQ(ask(START, 1800), 0);
    EXPECT_EQ(end_within(2), std::nullopt);
    module.kill();
    EXPECT_EQ(end_within(3), std::optional<std::uint32_t>(0x4071000c));
}

TEST_F(AwaitedCompletion, HasNoResultOfAnOlderProgramming)
{
    const std::string events = ended(41, "2026-01-31T23:40:59.123Z", "0x4071000c");
    for (const bool has_writer : {true, false}) {
        const card_process agent(chassis_, 2, AGENT_SAP,
                                 [&](std::int32_t handle) { return tell(handle, events, has_writer); });
        card_process module(chassis_, 2, DAEMON_SAP, take_requests);
        ASSERT_EQ(ask(START, 1800), 0);
        EXPECT_EQ(end_within(2), std::nullopt);
        module.kill();
        EXPECT_EQ(end_within(3), std::optional<std::uint32_t>(BIOS_ERR_NO_COMPLETION)) << has_writer;
    }
}

TEST_F(AwaitedCompletion, IsMadeAfterHalfAMinuteWithoutProgressOrWriter)
{
    const card_process agent(chassis_, 2, AGENT_SAP, [](std::int32_t handle) { return tell(handle, "", false); });
    const card_process module(chassis_, 2, DAEMON_SAP, take_requests);
    ASSERT_EQ(ask(START, 1800), 0);
    const auto waited =
        seconds_of([&] { EXPECT_EQ(end_within(35), std::optional<std::uint32_t>(BIOS_ERR_NO_COMPLETION)); });
    EXPECT_GE(waited.count(), 29.5);
}

TEST_F(AwaitedCompletion, IsAwaitedAsLongAsTheAgentSeesAWriter)
{
    const card_process agent(chassis_, 2, AGENT_SAP, [](std::int32_t handle) { return tell(handle, "", true); });
    const card_process module(chassis_, 2, DAEMON_SAP, take_requests);
    ASSERT_EQ(ask(START, 1800), 0);
    EXPECT_EQ(end_within(33), std::nullopt);
}

TEST_F(AwaitedCompletion, IsNotMadeForTools)
{
    attach(0);
    mts_unbind(handle_);
    handle_ = bind_endpoint(ANY_SAP);
    card_process module(chassis_, 2, DAEMON_SAP, take_requests);
    ASSERT_EQ(ask(START, 1800), 0);
    module.kill();
    EXPECT_EQ(end_within(3), std::nullopt);
    attach(1);
}

} // namespace
