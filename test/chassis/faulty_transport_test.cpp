// A chassis whose transport loses, doubles, delays and truncates messages, while clients vanish before their
// answers and a card's daemon is killed: whoever asks gets an answer or a time-out, nobody is told of a programming
// that was none, and afterwards everything is as if nothing had happened.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <random>

#include "bios_messages.h"
#include "bios_opcodes.h"
#include "chassis_fixture.h"
#include "client_processes.h"
#include "held_locks.h"
#include "process_holdings.h"
#include "version_messages.h"
#include "without_pauses.h"

namespace
{

using steady = std::chrono::steady_clock;

constexpr unsigned ACTIVE = 1;
constexpr unsigned STANDBY = 2;
constexpr unsigned SHORT_ANSWERS = 3;
constexpr unsigned FULL_ANSWERS = 4;
constexpr unsigned EMPTY_SLOT = 9;
constexpr std::uint32_t CARD_NODES[] = {0x302, 0x402}; // of the modules that clients have locked
constexpr std::uint32_t CLIENTS_NODES[] = {0x302, 0x402, 0x300, 0x400, 0}; // and what truncation leaves of them
constexpr const char *LEFT_ON_STANDBY = ".tmpbios.bin"; // empty, by the active supervisor's clean-up
constexpr const char *PROGRAMMING_TIME_LIMIT_S = "25";

constexpr unsigned FIRST_REQUESTS = 400; // until everything has gone wrong once
constexpr unsigned REQUESTS = 2000;
constexpr unsigned CLIENTS = 8;
constexpr unsigned DAEMON_KILLS = 3; // a card whose daemon ends five times within a minute is given up
constexpr unsigned WAIT_LIMIT_S = 2;
constexpr unsigned SLOWEST_MS =
    (WAIT_LIMIT_S + 3) * 1000; // the time-out, and the transport's wait for room in a queue
constexpr unsigned VANISHING_PERCENT = 3;
constexpr unsigned CACHED_CONNECTIONS = 32; // that an endpoint keeps
constexpr unsigned RESIDENT_TOLERANCE_KIB = 64;

struct tally {
    std::atomic<unsigned> asked;
    std::atomic<unsigned> answered;
    std::atomic<unsigned> rejected;
    std::atomic<unsigned> timed_out;
    std::atomic<unsigned> receiver_gone;
    std::atomic<unsigned> vanished; // those did not wait
    std::atomic<unsigned> unexpected;
    std::atomic<unsigned> too_slow;
    std::atomic<unsigned> slowest_ms;
};

struct question {
    unsigned slot;
    std::uint32_t opcode;
    std::string body;
};

question question_of(unsigned percent, unsigned choice)
{
    if (percent < 10)
        return {ACTIVE, MTS_OPC_BIOS_GET_MOD_BIOS_VERSION, module_version_request(SHORT_ANSWERS)};
    if (percent < 20)
        return {ACTIVE, MTS_OPC_BIOS_GET_MOD_BIOS_VERSION, module_version_request(FULL_ANSWERS)};
    if (percent < 30)
        return {ACTIVE, MTS_OPC_BIOS_GET_MOD_BIOS_VERSION, module_version_request(STANDBY)};
    if (percent < 40)
        return {ACTIVE, MTS_OPC_BIOS_GET_MOD_BIOS_VERSION, module_version_request(EMPTY_SLOT)};
    if (percent < 45)
        return {ACTIVE, MTS_OPC_BIOS_GET_MOD_BIOS_VERSION, module_version_request(ACTIVE)};
    if (percent < 60)
        return {ACTIVE, 4600 + choice % 90, std::string(choice % 700, 'x')}; // not served
    if (percent < 75)
        return {ACTIVE, MTS_OPC_BIOS_MODULE_LOCK,
                be32_bytes(choice % 2 != 0 ? BIOS_MODULE_LOCK_TAKE : BIOS_MODULE_LOCK_RELEASE) +
                    be32_bytes(CARD_NODES[choice / 2 % 2])};
    if (percent < 85)
        return {ACTIVE, MTS_OPC_BIOS_GET_KS_IMAGE, be32_bytes(choice % 2000)};
    return {STANDBY, MTS_OPC_BIOS_GET_LC_BIOS_VERSION, "ABCD"};
}

void count_reply(tally &counts, const question &asked, const request_reply &reply)
{
    if (reply.error == 0)
        ++counts.answered;
    else if (reply.error == EOPNOTSUPP && asked.opcode < MTS_OPC_BIOS_INSTALL_LOADER)
        ++counts.rejected;
    else if (reply.error == MTS_ERRNO_TIMED_OUT)
        ++counts.timed_out;
    else if (asked.slot == STANDBY && (reply.error == ECONNREFUSED || reply.error == ECONNRESET))
        ++counts.receiver_gone;
    else
        ++counts.unexpected;
}

void ask_and_count(tally &counts, requester &asking, const question &asked, unsigned wait_limit_s)
{
    const auto start = steady::now();
    const request_reply reply = asking.ask(asked.slot, asked.opcode, asked.body, wait_limit_s);
    const auto took_ms =
        static_cast<unsigned>(std::chrono::duration_cast<std::chrono::milliseconds>(steady::now() - start).count());
    unsigned slowest = counts.slowest_ms;
    while (took_ms > slowest && !counts.slowest_ms.compare_exchange_weak(slowest, took_ms))
        continue;
    if (took_ms > SLOWEST_MS)
        ++counts.too_slow;
    if (wait_limit_s == 0)
        ++counts.vanished;
    else
        count_reply(counts, asked, reply);
    ++counts.asked;
}

// One client: now and then it is gone before its answer comes, and another one takes its place.
void be_client(tally &counts, unsigned requests, unsigned seed)
{
    std::mt19937 random(seed);
    std::optional<requester> asking(std::in_place);
    for (unsigned number = 0; number < requests / CLIENTS; ++number) {
        const question asked = question_of(static_cast<unsigned>(random() % 100), static_cast<unsigned>(random()));
        const bool vanishes = random() % 100 < VANISHING_PERCENT;
        ask_and_count(counts, *asking, asked, vanishes ? 0 : WAIT_LIMIT_S);
        if (vanishes)
            asking.emplace();
    }
}

class FaultyTransport : public chassis_test
{
protected:
    void SetUp() override
    {
        insert({.slot = ACTIVE, .ks_image = old_image().path});
        insert({.slot = STANDBY, .role = "standby"});
        card_plan module = {.slot = SHORT_ANSWERS, .role = "none", .in_tree = nullptr, .kind = "linecard"};
        module.answers = "short";
        insert(module);
        module.slot = FULL_ANSWERS;
        module.answers = "full";
        insert(module);
        limit_waits(1);
        up();
        write_file(card_file(ACTIVE, CHILD_RECEIVE_MS), "10\n");
        daemon_ = daemon_pid(ACTIVE);
    }
    void TearDown() override
    {
        if (HasFailure())
            std::cerr << "---- what was done to messages\n" << faulted() << "----\n";
        chassis_test::TearDown();
    }

    void order(const std::string &rules) const { write_file(chassis_directory() + "/transport/faults", rules); }
    void order_no_more() const { std::filesystem::remove(chassis_directory() + "/transport/faults"); }
    std::string faulted() const
    {
        const std::string path = chassis_directory() + "/transport/faulted";
        return std::filesystem::exists(path) ? file_content(path) : std::string();
    }
    unsigned faults_told(const std::string &name) const
    {
        const std::string text = faulted();
        unsigned count = 0;
        for (std::size_t place = text.find(" " + name + " "); place != std::string::npos;
             place = text.find(" " + name + " ", place + 1))
            ++count;
        return count;
    }

    // Has biosctl program a module; it may fail, but what it calls a success has to be one.
    finished_program program_by_biosctl(unsigned module, const test_image &wanted)
    {
        make_image_tree(slot_file(ACTIVE, "root"), 90, wanted);
        const finished_program finished =
            biosctl({"program", std::to_string(module), "--force=older", "--timeout", PROGRAMMING_TIME_LIMIT_S});
        if (finished.exit_code == 0 || finished.exit_code == 2) {
            EXPECT_EQ(flash_of(module) == wanted.bytes, true) << "a false success: " << finished.output;
            EXPECT_FALSE(is_marked(module));
        } else {
            EXPECT_TRUE(finished.exit_code == 1 || finished.exit_code == 3 || finished.exit_code == 4)
                << finished.errors;
        }
        EXPECT_TRUE(wait_until_idle());
        return finished;
    }
    bool wait_until_idle() const
    {
        return wait_until([&] {
            const held_locks held = locks_held();
            return child_pid(ACTIVE) == 0 && child_pid(STANDBY) == 0 && !held.contains(0x101) &&
                   !held.contains(0x201);
        });
    }

    // Every connection that an endpoint keeps is used, so that there are never more of them.
    static void fill_connections()
    {
        for (unsigned rejected = 0; rejected <= CACHED_CONNECTIONS;) {
            requester asking;
            rejected += asking.ask(ACTIVE, 1, "unknown", WAIT_LIMIT_S).error == EOPNOTSUPP ? 1 : 0;
        }
    }

    void kill_standby_daemon() const
    {
        if (const pid_t standby = daemon_pid(STANDBY); standby != 0)
            (void)::kill(standby, SIGKILL);
    }

    // What clients had locked and did not free, as the request was lost or came before the one to lock.
    void expect_clients_locks_can_be_freed() const
    {
        requester asking;
        for (const auto &[node, holder] : locks_held()) {
            EXPECT_NE(std::find(std::begin(CLIENTS_NODES), std::end(CLIENTS_NODES), node), std::end(CLIENTS_NODES))
                << std::hex << node;
            EXPECT_EQ(
                asking
                    .ask(ACTIVE, MTS_OPC_BIOS_MODULE_LOCK, be32_bytes(BIOS_MODULE_LOCK_RELEASE) + be32_bytes(node))
                    .error,
                0);
        }
        EXPECT_EQ(locks_held(), held_locks());
    }

    pid_t daemon_ = 0;
};

} // namespace

TEST_F(FaultyTransport, LeavesNobodyWaitingAndNothingBehind)
{
    const unsigned seed = std::random_device{}();
    RecordProperty("seed", static_cast<int>(seed));
    std::printf("seed %u\n", seed);
    order("lose 1% " + std::to_string(seed) + "\ndouble 3% " + std::to_string(seed) + "\ndelay 3% " +
          std::to_string(seed) + " 500\ntruncate 3% " + std::to_string(seed) + "\n");
    const shared_record<tally> first_counts;
    client_processes first_clients(
        CLIENTS, [&](unsigned number) { be_client(*first_counts, FIRST_REQUESTS, seed - number); });
    (void)program_by_biosctl(ACTIVE, old_image());
    ASSERT_TRUE(wait_until([&] { return first_clients.running() == 0; }));
    fill_connections();
    const process_holdings before = holdings_of(daemon_);

    const shared_record<tally> counts;
    const auto start = steady::now();
    client_processes clients(CLIENTS, [&](unsigned number) { be_client(*counts, REQUESTS, seed + number); });
    // Before the programmings: one that is cut off on the other card takes a minute to be given up.
    for (unsigned kills = 1; kills <= DAEMON_KILLS; ++kills) {
        ASSERT_TRUE(wait_until([&] { return counts->asked > kills * REQUESTS / 20; }));
        kill_standby_daemon();
    }
    unsigned programmings = 0;
    unsigned succeeded = 0;
    while (clients.running() > 0) {
        const test_image &wanted = programmings / 2 % 2 == 0 ? new_image() : old_image();
        const finished_program finished = program_by_biosctl(1 + programmings % 2, wanted);
        ++programmings;
        succeeded += finished.exit_code == 0 ? 1 : 0;
        if (finished.exit_code != 0)
            std::printf("programming %u failed: %s\n", programmings, finished.errors.c_str());
    }
    const std::chrono::duration<double> elapsed = steady::now() - start;
    order_no_more();

    std::printf(
        "%u requests in %.0f s: %u answered, %u rejected, %u timed out, %u receivers gone, %u did not wait; "
        "the slowest took %u ms; %u of %u programmings succeeded; faults: %u lost, %u doubled, %u delayed, "
        "%u truncated\n",
        counts->asked.load(), elapsed.count(), counts->answered.load(), counts->rejected.load(),
        counts->timed_out.load(), counts->receiver_gone.load(), counts->vanished.load(), counts->slowest_ms.load(),
        succeeded, programmings, faults_told("lose"), faults_told("double"), faults_told("delay"),
        faults_told("truncate"));
    EXPECT_EQ(clients.failed(), 0U);
    EXPECT_EQ(counts->asked, REQUESTS);
    EXPECT_EQ(counts->unexpected, 0U);
    EXPECT_EQ(counts->too_slow, 0U);
    EXPECT_GT(counts->answered + counts->rejected, REQUESTS * 3 / 4);
    EXPECT_GT(counts->timed_out, 0U);
    EXPECT_GT(counts->vanished, 0U);
    for (const char *fault : {"lose", "double", "delay", "truncate"})
        EXPECT_GT(faults_told(fault), 20U) << fault;

    EXPECT_EQ(daemon_pid(ACTIVE), daemon_) << "the daemon has ended";
    EXPECT_TRUE(wait_until_idle());
    expect_clients_locks_can_be_freed();
    ASSERT_TRUE(wait_until([&] { return daemon_pid(STANDBY) != 0; }));
    for (const unsigned module : {ACTIVE, STANDBY}) {
        const finished_program last = program_by_biosctl(module, new_image());
        EXPECT_TRUE(last.exit_code == 0 || last.exit_code == 2) << last.errors;
        EXPECT_EQ(flash_of(module) == new_image().bytes, true);
        expect_tidy(module, {LEFT_ON_STANDBY});
    }
    fill_connections();
    const process_holdings after = holdings_of(daemon_);
    std::cout << "before: " << before << "; after: " << after << "\n";
    EXPECT_EQ(after.descriptors, before.descriptors);
    EXPECT_EQ(after.mappings, before.mappings);
    EXPECT_LE(after.resident_kib, before.resident_kib + RESIDENT_TOLERANCE_KIB);
}

// A request that comes twice must not have a flash programmed by two at the same time, on either card.
TEST_F(FaultyTransport, ProgramsThoughEveryMessageComesTwice)
{
    order("double 100% 1\n");
    for (const unsigned module : {ACTIVE, STANDBY}) {
        const finished_program finished = program_by_biosctl(module, new_image());
        EXPECT_EQ(finished.exit_code, 0) << finished.errors;
    }
    EXPECT_GT(faults_told("double"), 20U);
    order_no_more();
    EXPECT_EQ(locks_held(), held_locks());
    expect_tidy(ACTIVE);
    expect_tidy(STANDBY, {LEFT_ON_STANDBY});
}

// The child's pause at its end is longer than the progress takes.
TEST_F(FaultyTransport, ProgramsThoughEveryMessageComesLate)
{
    for (const unsigned slot : {ACTIVE, STANDBY})
        keep_pauses(slot);
    order("delay 100% 1 100\n"); // a lock, for which four messages go their way, is given up after a second
    for (const unsigned module : {ACTIVE, STANDBY}) {
        const finished_program finished = program_by_biosctl(module, new_image());
        EXPECT_EQ(finished.exit_code, 0) << finished.errors;
    }
    EXPECT_GT(faults_told("delay"), 20U);
    order_no_more();
    EXPECT_EQ(locks_held(), held_locks());
    expect_tidy(ACTIVE);
    expect_tidy(STANDBY, {LEFT_ON_STANDBY});
}
