// A chassis that is asked by eight clients while it programs all the time: nothing is lost, nothing is refused
// without a reason, and the daemons hold no more in the end than at the beginning. SOAK_REQUESTS in the environment
// is the number of requests.
#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <random>

#include "bios_opcodes.h"
#include "bios_results.h"
#include "chassis_fixture.h"
#include "checked_requests.h"
#include "client_processes.h"
#include "log_keeper.h"
#include "process_holdings.h"
#include "version_messages.h"

namespace
{

using steady = std::chrono::steady_clock;

constexpr unsigned CLIENTS = 8;
constexpr unsigned REQUESTS = 20'000; // when the environment names no other number
constexpr unsigned MOST_REQUESTS = 1'000'000;
constexpr unsigned FIRST_REQUESTS = 1999; // until everything has been used once; nothing is told of them
constexpr unsigned LEAST_PROGRAMMINGS = 4;
constexpr unsigned SOURCE_QUERY_EVERY = 4;  // programmings
constexpr unsigned CACHED_CONNECTIONS = 32; // that an endpoint keeps
constexpr unsigned RESIDENT_TOLERANCE_KIB = 64;
constexpr unsigned TOLD_FAILURES = 20;
constexpr auto LOG_LOOK_INTERVAL = std::chrono::milliseconds(200);
constexpr unsigned PROGRESS_TENTHS = 10;

struct tally {
    std::atomic<unsigned> taken; // requests that a client has begun with
    std::atomic<unsigned> served;
    std::atomic<unsigned> refused; // for a documented reason
    std::atomic<unsigned> wrong;
    std::atomic<unsigned> lost;
    std::atomic<bool> done;
    std::atomic<std::uint64_t> log_bytes;
    std::array<std::uint32_t, MOST_REQUESTS> took_us;

    unsigned ended() const { return served + refused + wrong + lost; }
};

unsigned requests_wanted()
{
    const char *const text = std::getenv("SOAK_REQUESTS");
    if (text == nullptr)
        return REQUESTS;
    const unsigned long number = std::strtoul(text, nullptr, 10);
    if (number < CLIENTS || number > MOST_REQUESTS)
        throw std::runtime_error("SOAK_REQUESTS: 8 to 1000000");
    return static_cast<unsigned>(number);
}

void count(tally &counts, request_end end, const std::string &what)
{
    switch (end) {
    case request_end::served:
        ++counts.served;
        return;
    case request_end::refused:
        ++counts.refused;
        return;
    case request_end::wrong:
        ++counts.wrong;
        break;
    case request_end::lost:
        ++counts.lost;
        break;
    }
    if (counts.wrong + counts.lost <= TOLD_FAILURES)
        std::fprintf(stderr, "%s\n", what.c_str());
}

void be_client(tally &counts, unsigned requests, checked_requests &asking)
{
    for (unsigned number = counts.taken++; number < requests; number = counts.taken++) {
        std::string what;
        const auto start = steady::now();
        const request_end end = asking.ask_one(what);
        counts.took_us[number] = static_cast<std::uint32_t>(
            std::chrono::duration_cast<std::chrono::microseconds>(steady::now() - start).count());
        count(counts, end, what);
    }
}

// Milliseconds within which so many percent of the requests were answered.
double percentile_ms(std::vector<std::uint32_t> &took_us, std::size_t percent)
{
    const auto place = took_us.begin() + static_cast<std::ptrdiff_t>((took_us.size() - 1) * percent / 100);
    std::nth_element(took_us.begin(), place, took_us.end());
    return *place / 1000.0;
}

class Soak : public chassis_test
{
protected:
    Soak() : chassis_test(daemon_build::shipped) {}
    void SetUp() override
    {
        const std::string loader = workspace() + "/loader.sro";
        ASSERT_EQ(
            run_program({BIOS_IMAGE_PROGRAM, "loader", "--output", loader, "--version", "1.7.3", "--size", "64K"})
                .exit_code,
            0);
        loader_ = file_content(loader);
        insert({.slot = ACTIVE, .boot_loader = loader, .ks_image = old_image().path});
        insert({.slot = STANDBY, .role = "standby"});
        card_plan module = {.slot = SHORT_ANSWERS, .role = "none", .in_tree = nullptr, .kind = "linecard"};
        module.answers = "short";
        insert(module);
        module.slot = FULL_ANSWERS;
        module.answers = "full";
        insert(module);
        up();
        daemons_ = {daemon_pid(ACTIVE), daemon_pid(STANDBY)};
    }

    // Makes so many requests by all clients while everything that takes long is done one after the other.
    void ask_and_program(tally &counts, unsigned requests, unsigned seed)
    {
        client_processes log_keeping(1, [&](unsigned) { keep_logs(counts, requests); });
        client_processes clients(CLIENTS, [&](unsigned number) {
            checked_requests asking(seed + number, loader_, old_image().bytes);
            be_client(counts, requests, asking);
        });
        unsigned programmings = 0;
        do {
            program(programmings);
            ++programmings;
        } while (clients.running() > 0 || programmings < LEAST_PROGRAMMINGS);
        counts.done = true;
        EXPECT_EQ(clients.failed(), 0U);
        programmings_ += programmings;
    }

    // The own flash and the standby's by turns. A second request meanwhile is refused. An image's version is asked
    // for in between: it is unpacked to the place of the one that is programmed.
    void program(unsigned number)
    {
        const unsigned module = number % 2 == 0 ? ACTIVE : STANDBY;
        const test_image &wanted = number / 2 % 2 == 0 ? new_image() : old_image();
        make_image_tree(slot_file(ACTIVE, "root"), 90, wanted);
        requester asking;
        if (number % SOURCE_QUERY_EVERY == 0) {
            const request_reply reply =
                asking.ask(ACTIVE, MTS_OPC_BIOS_GET_SRC_BIOS_VERSION, source_version_request(true, "", NO_NOTICES));
            EXPECT_EQ(reply.payload == source_version_answer(wanted.version), true) << "the image's version";
        }
        programming seen = asking.start(module);
        ASSERT_EQ(seen.error, 0) << seen;
        ASSERT_EQ(seen.answer, 0U) << seen;
        EXPECT_EQ(requester().start(module).answer, BIOS_ERR_BUSY);
        asking.await_end(seen);
        EXPECT_EQ(seen.result, std::optional<std::uint32_t>(0)) << seen;
        EXPECT_TRUE(seen.verified()) << seen;
        EXPECT_EQ(flash_of(module) == wanted.bytes, true) << "the flash of slot " << module;
    }

    void keep_logs(tally &counts, unsigned requests) const
    {
        log_keeper keeper({slot_file(ACTIVE, "log"), slot_file(STANDBY, "log"), slot_file(SHORT_ANSWERS, "log"),
                           slot_file(FULL_ANSWERS, "log")});
        const auto start = steady::now();
        for (unsigned told = requests == FIRST_REQUESTS ? PROGRESS_TENTHS : 0; !counts.done;
             std::this_thread::sleep_for(LOG_LOOK_INTERVAL)) {
            keeper.look();
            counts.log_bytes = keeper.bytes_written();
            const std::chrono::duration<double> elapsed = steady::now() - start;
            if (const unsigned tenths = counts.ended() / (requests / PROGRESS_TENTHS); tenths > told) {
                std::printf("soak: %u requests after %.0f s\n", counts.ended(), elapsed.count());
                (void)std::fflush(stdout);
                told = tenths;
            }
        }
    }

    // Every connection that an endpoint keeps is used, so that there are never more of them.
    static void fill_connections()
    {
        for (unsigned number = 0; number <= CACHED_CONNECTIONS; ++number) {
            requester asking;
            for (const unsigned slot : {ACTIVE, STANDBY})
                ASSERT_EQ(asking.ask(slot, 1, "unknown").error, EOPNOTSUPP);
        }
    }

    std::vector<process_holdings> held() const
    {
        fill_connections();
        return {holdings_of(daemons_[0]), holdings_of(daemons_[1])};
    }
    void expect_flat(const std::vector<process_holdings> &before, const std::vector<process_holdings> &after) const
    {
        for (const unsigned slot : {ACTIVE, STANDBY}) {
            const process_holdings &first = before[slot - 1];
            const process_holdings &last = after[slot - 1];
            std::cout << "soak: daemon of slot " << slot << " at the start: " << first << "\n"
                      << "soak: daemon of slot " << slot << " at the end:   " << last << "\n";
            EXPECT_EQ(daemon_pid(slot), daemons_[slot - 1]) << "the daemon has ended";
            EXPECT_EQ(last.descriptors, first.descriptors);
            EXPECT_EQ(last.mappings, first.mappings);
            EXPECT_LE(last.resident_kib, first.resident_kib + RESIDENT_TOLERANCE_KIB);
        }
    }

    unsigned programmings_ = 0;

private:
    std::string loader_;
    std::vector<pid_t> daemons_;
};

} // namespace

TEST_F(Soak, HoldsNoMoreInTheEndAndLosesNoRequest)
{
    const unsigned requests = requests_wanted();
    const unsigned seed = std::random_device{}();
    std::printf("soak: seed %u\n", seed);
    {
        const shared_record<tally> first;
        ask_and_program(*first, FIRST_REQUESTS, seed - CLIENTS);
        ASSERT_EQ(first->wrong + first->lost, 0U);
    }
    const std::vector<process_holdings> before = held();
    programmings_ = 0;
    const shared_record<tally> counts;
    const auto start = steady::now();
    ask_and_program(*counts, requests, seed);
    const std::chrono::duration<double> elapsed = steady::now() - start;

    expect_flat(before, held());
    std::vector<std::uint32_t> took_us(counts->took_us.begin(), counts->took_us.begin() + requests);
    const double median_ms = percentile_ms(took_us, 50);
    const double slow_ms = percentile_ms(took_us, 99);
    const double slowest_ms = *std::max_element(took_us.begin(), took_us.end()) / 1000.0;
    std::printf("soak: the slowest request took %.0f ms; the cards' logs took %.0f MiB\n", slowest_ms,
                static_cast<double>(counts->log_bytes) / (1 << 20));
    EXPECT_EQ(counts->ended(), requests);
    EXPECT_EQ(counts->lost, 0U);
    EXPECT_EQ(counts->wrong, 0U);
    std::printf("soak: %u requests in %.0f s, %u lost, %u wrong or refused without reason, %u refused with one, "
                "%u programmings, p50 %.2f ms, p99 %.2f ms, %s\n",
                counts->ended(), elapsed.count(), counts->lost.load(), counts->wrong.load(), counts->refused.load(),
                programmings_, median_ms, slow_ms, HasFailure() ? "NOT flat or not complete" : "flat");
}
