// A daemon that is asked very often: afterwards it holds no more than after the first questions.
#include <algorithm>
#include <cstdio>

#include "bios_opcodes.h"
#include "chassis_fixture.h"
#include "process_holdings.h"
#include "version_messages.h"

namespace
{

constexpr unsigned QUERIES = 100'000;
constexpr unsigned FIRST_QUERIES = 1'000;                    // until everything has been used once
constexpr unsigned OWN_QUERY_EVERY = 100;                    // two of them look for a process of the system
constexpr unsigned SOURCE_QUERIES[] = {500, 40'000, 80'000}; // these take seconds
constexpr unsigned RESIDENT_TOLERANCE_KIB = 64;

class ManyQueries : public chassis_test
{
protected:
    ManyQueries() : chassis_test(daemon_build::shipped) {}
    void ask(unsigned number)
    {
        if (std::find(std::begin(SOURCE_QUERIES), std::end(SOURCE_QUERIES), number) != std::end(SOURCE_QUERIES))
            return expect_answer(MTS_OPC_BIOS_GET_SRC_BIOS_VERSION, source_version_request(true, "", NO_NOTICES),
                                 8 + 268);
        if (number % OWN_QUERY_EVERY == 0)
            return expect_answer(MTS_OPC_BIOS_GET_MOD_BIOS_VERSION, module_version_request(1), 408);
        if (number % OWN_QUERY_EVERY == OWN_QUERY_EVERY / 2)
            return expect_answer(MTS_OPC_BIOS_GET_LC_BIOS_VERSION, "ABCD", 396);
        switch (number % 4) {
        case 0:
            return expect_answer(MTS_OPC_BIOS_GET_MOD_BIOS_VERSION, module_version_request(3), 408);
        case 1:
            return expect_answer(MTS_OPC_BIOS_GET_MOD_BIOS_VERSION, module_version_request(4), 16 + 392 * 4);
        case 2:
            return expect_answer(MTS_OPC_BIOS_GET_MOD_BIOS_VERSION, module_version_request(9),
                                 VERSION_FAILURE_BYTES);
        default:
            return expect_answer(MTS_OPC_BIOS_GET_MOD_BIOS_VERSION, module_version_request(number * 0x10001),
                                 VERSION_FAILURE_BYTES);
        }
    }
    void start_asking() { asking_.emplace(); }

private:
    void expect_answer(std::uint32_t opcode, const std::string &body, std::size_t bytes)
    {
        const request_reply reply = asking_->ask(1, opcode, body);
        ASSERT_EQ(reply.error, 0) << "opcode " << opcode;
        ASSERT_EQ(reply.payload.size(), bytes) << "opcode " << opcode;
    }

    std::optional<requester> asking_;
};

} // namespace

TEST_F(ManyQueries, LeaveNothingBehind)
{
    insert({.slot = 1});
    card_plan module = {.slot = 3, .role = "none", .in_tree = nullptr, .kind = "linecard", .answers = "short"};
    insert(module);
    module.slot = 4;
    module.answers = "full";
    module.answer_rows = 3;
    insert(module);
    up();
    start_asking();
    const pid_t daemon = daemon_pid(1);

    for (unsigned number = 0; number < FIRST_QUERIES && !HasFailure(); ++number)
        ask(number);
    const process_holdings first = holdings_of(daemon);
    const auto start = std::chrono::steady_clock::now();
    for (unsigned number = FIRST_QUERIES; number < QUERIES && !HasFailure(); ++number)
        ask(number);
    const process_holdings last = holdings_of(daemon);
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;

    std::printf("%u queries in %.0f s (%.0f s of processor time): descriptors %zu and %zu, mappings %zu and %zu, "
                "resident %u and %u KiB\n",
                QUERIES - FIRST_QUERIES, elapsed.count(), last.processor_s - first.processor_s, first.descriptors,
                last.descriptors, first.mappings, last.mappings, first.resident_kib, last.resident_kib);
    EXPECT_EQ(daemon_pid(1), daemon);
    EXPECT_EQ(last.descriptors, first.descriptors);
    EXPECT_EQ(last.mappings, first.mappings);
    EXPECT_LE(last.resident_kib, first.resident_kib + RESIDENT_TOLERANCE_KIB);
    EXPECT_EQ(child_pid(1), 0);
}
