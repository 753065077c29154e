// What the daemon holds while it is idle, against the daemon of fwupd, and what a programming takes for flashes of
// two sizes.
#include <array>
#include <memory>
#include <stdexcept>

#include "bench_chassis.h"
#include "benchmarks.h"
#include "in_turn.h"
#include "peer_daemon.h"
#include "process_memory.h"

namespace
{

constexpr unsigned SLOT = 1;
constexpr double IDLE_GOAL = 0.1;
constexpr double AGENT_GOAL = 1;
constexpr double SIZE_GOAL = 1.1;
constexpr unsigned SMALL_KIB = 8 * 1024;
constexpr unsigned LARGE_KIB = 16 * 1024;
constexpr unsigned SECTOR_KIB = 64;
constexpr auto SAMPLE_INTERVAL = std::chrono::milliseconds(2);

unsigned idle_daemon_kib(const bench_chassis &cards)
{
    if (cards.chassis({"restart", std::to_string(SLOT)}).exit_code != 0)
        throw std::runtime_error("a card cannot be restarted");
    return resident_kib(cards.daemon_pid(SLOT));
}

figure measure_idle_agent()
{
    bench_chassis cards;
    cards.insert({.slot = SLOT});
    cards.up();
    figure told{.row = 5,
                .name = "resident, idle agent",
                .unit = "KiB",
                .ours = {.name = "bios_agent", .values = {}},
                .reference = {.name = "bios_daemon", .values = {}},
                .goal = AGENT_GOAL};
    measure_in_turn(
        told.ours, [&] { return resident_kib(cards.agent_pid(SLOT)); }, told.reference,
        [&] { return idle_daemon_kib(cards); }, LEAST_RUNS);
    return told;
}

figure measure_idle()
{
    bench_chassis cards;
    cards.insert({.slot = SLOT});
    cards.up();
    figure told{.row = 5,
                .name = "resident, idle",
                .unit = "KiB",
                .ours = {.name = "bios_daemon", .values = {}},
                .reference = {.name = "fwupd", .values = {}},
                .goal = IDLE_GOAL,
                .remark = "fwupd on a message bus of its own, when it serves and has had nothing to do for 0.5 s"};
    measure_in_turn(
        told.ours, [&] { return idle_daemon_kib(cards); }, told.reference,
        [] { return resident_kib(peer_daemon().number()); }, LEAST_RUNS);
    return told;
}

// The most that was seen of a programming.
struct programming_peak {
    unsigned daemon_kib = 0;
    unsigned child_kib = 0;
    unsigned looks = 0; // at the child
};

// A card with a flash of one size that is programmed with two images by turns.
class programmed_card
{
public:
    explicit programmed_card(unsigned flash_kib) : old_(image("1.2", flash_kib)), new_(image("2.5", flash_kib))
    {
        cards_.insert(
            {.slot = SLOT, .in_flash = &old_, .in_tree = &new_, .flash_kib = flash_kib, .sector_kib = SECTOR_KIB});
        cards_.up();
    }

    void start()
    {
        write_file(cards_.flash_file(SLOT, "data"), old_.bytes);
        peak_ = {};
        child_ = 0;
        running_ = std::make_unique<running_program>(cards_.biosctl_words({"program", std::to_string(SLOT)}));
    }

    // false when the flash is programmed and the child has ended.
    bool look()
    {
        if (child_ == 0)
            child_ = cards_.child_pid(SLOT);
        if (child_ == 0)
            return true;
        const unsigned kib = private_kib(child_);
        peak_.child_kib = std::max(peak_.child_kib, kib);
        peak_.daemon_kib = std::max(peak_.daemon_kib, private_kib(cards_.daemon_pid(SLOT)));
        ++peak_.looks;
        return kib != 0;
    }

    programming_peak finish()
    {
        const finished_program ended = running_->wait();
        if (ended.exit_code != 0 || cards_.flash_of(SLOT) != new_.bytes)
            throw std::runtime_error("a programming failed: " + ended.errors);
        return peak_;
    }

private:
    const test_image &old_;
    const test_image &new_;
    bench_chassis cards_;
    std::unique_ptr<running_program> running_;
    programming_peak peak_;
    pid_t child_ = 0;
};

// Both at the same time: a child pauses for five seconds when it is done.
std::array<programming_peak, 2> program_both(programmed_card &large, programmed_card &small)
{
    large.start();
    small.start();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (bool large_runs = true, small_runs = true; large_runs || small_runs;) {
        large_runs = large_runs && large.look();
        small_runs = small_runs && small.look();
        if (std::chrono::steady_clock::now() > deadline)
            throw std::runtime_error("a programming does not end");
        std::this_thread::sleep_for(SAMPLE_INTERVAL);
    }
    return {large.finish(), small.finish()};
}

figure size_figure(const char *name)
{
    return {.row = 5,
            .name = name,
            .unit = "KiB",
            .ours = {.name = "16 MiB flash", .values = {}},
            .reference = {.name = "8 MiB flash", .values = {}},
            .goal = SIZE_GOAL};
}

std::vector<figure> measure_programming()
{
    programmed_card large(LARGE_KIB);
    programmed_card small(SMALL_KIB);
    figure child = size_figure("private, programming child");
    figure both = size_figure("private, daemon and programming child");
    unsigned least_looks = ~0U;
    for (unsigned run = 0; run < LEAST_RUNS; ++run) {
        const auto [of_large, of_small] = program_both(large, small);
        child.ours.values.push_back(of_large.child_kib);
        child.reference.values.push_back(of_small.child_kib);
        both.ours.values.push_back(of_large.child_kib + of_large.daemon_kib);
        both.reference.values.push_back(of_small.child_kib + of_small.daemon_kib);
        least_looks = std::min({least_looks, of_large.looks, of_small.looks});
    }
    child.remark = "the most of a programming, looked at every " + std::to_string(SAMPLE_INTERVAL.count()) +
                   " ms and a little, at least " + std::to_string(least_looks) +
                   " times; the flashes do not wait as real parts would";
    return {child, both};
}

} // namespace

std::vector<figure> measure_memory()
{
    std::vector<figure> figures{measure_idle(), measure_idle_agent()};
    for (const figure &told : measure_programming())
        figures.push_back(told);
    return figures;
}
