// A daemon that is asked very often: afterwards it holds no more than after the first questions.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <unistd.h>

#include "bios_opcodes.h"
#include "chassis_fixture.h"
#include "version_messages.h"

namespace
{

constexpr unsigned QUERIES = 100'000;
constexpr unsigned FIRST_QUERIES = 1'000;                    // until everything has been used once
constexpr unsigned OWN_QUERY_EVERY = 100;                    // two of them look for a process of the system
constexpr unsigned SOURCE_QUERIES[] = {500, 40'000, 80'000}; // these take seconds
constexpr unsigned RESIDENT_TOLERANCE_KIB = 64;

struct holdings {
    std::size_t descriptors;
    std::size_t mappings;
    unsigned resident_kib;
    double processor_s; // of the daemon and the programs that it ran
};

class ManyQueries : public chassis_test
{
protected:
    holdings held() const
    {
        const std::string process = "/proc/" + std::to_string(daemon_pid(1));
        const auto count = [](auto &&range) {
            std::size_t entries = 0;
            for ([[maybe_unused]] const auto &entry : range)
                ++entries;
            return entries;
        };
        const std::string maps = file_content(process + "/maps");
        return {count(std::filesystem::directory_iterator(process + "/fd")),
                static_cast<std::size_t>(std::count(maps.begin(), maps.end(), '\n')), resident_kib(process),
                processor_s(process)};
    }
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
    // The mark in smaps_rollup counts every page; the one in status is allowed to lag behind.
    static unsigned resident_kib(const std::string &process)
    {
        std::istringstream text(file_content(process + "/smaps_rollup"));
        for (std::string word; text >> word;) {
            unsigned kib = 0;
            if (word == "Rss:" && text >> kib)
                return kib;
        }
        throw std::runtime_error("no resident size");
    }
    static double processor_s(const std::string &process)
    {
        const std::string text = file_content(process + "/stat");
        std::istringstream rest(text.substr(text.rfind(')') + 1));
        std::string skipped;
        for (unsigned field = 3; field < 14; ++field)
            rest >> skipped;
        unsigned long ticks = 0;
        for (unsigned field = 14; field < 18; ++field) { // own and children's, user and system
            unsigned long some = 0;
            rest >> some;
            ticks += some;
        }
        return static_cast<double>(ticks) / static_cast<double>(::sysconf(_SC_CLK_TCK));
    }
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
    const holdings first = held();
    const auto start = std::chrono::steady_clock::now();
    for (unsigned number = FIRST_QUERIES; number < QUERIES && !HasFailure(); ++number)
        ask(number);
    const holdings last = held();
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
