// What a card costs in chassis of several sizes, against the card of a chassis of one: memory of all processes, and
// the time of "chassis up".
#include <stdexcept>

#include "benchmarks.h"
#include "in_turn.h" // LEAST_RUNS
#include "many_cards.h"
#include "process_memory.h"
#include "timed_process.h"

namespace
{

constexpr unsigned SIZES[] = {2, 8, 32, 128};
constexpr double GOAL = 1.1;

void expect_done(const finished_program &ended)
{
    if (ended.exit_code != 0)
        throw std::runtime_error("chassis: " + ended.errors);
}

double kib_of(const bench_chassis &cards, unsigned size)
{
    double sum = 0;
    for (const pid_t process : processes_of_chassis(cards.chassis_directory(), size))
        sum += proportional_kib(process);
    return sum;
}

struct card_cost {
    samples start;
    samples memory;
};

// Starts a chassis that is down, and takes it down again: what two chassis share would be halved in both.
void measure_once(const bench_chassis &cards, unsigned size, card_cost &taken)
{
    const double start = timed_ms([&] { expect_done(cards.chassis({"up"})); });
    taken.start.values.push_back(start / size);
    taken.memory.values.push_back(kib_of(cards, size) / size);
    expect_done(cards.chassis({"down"}));
}

figure size_figure(const std::string &what, const char *unit, unsigned size, samples ours, samples reference)
{
    ours.name = "a card of " + std::to_string(size);
    reference.name = "a card of 1";
    return {.row = 12,
            .name = what + ", " + std::to_string(size) + " cards",
            .unit = unit,
            .ours = std::move(ours),
            .reference = std::move(reference),
            .goal = GOAL};
}

std::vector<figure> measure_size(unsigned size, const bench_chassis &one)
{
    const auto many = chassis_of(size, size);
    expect_done(many->chassis({"down"}));
    card_cost of_many;
    card_cost of_one;
    for (unsigned run = 0; run < LEAST_RUNS; ++run) {
        measure_once(*many, size, of_many);
        measure_once(one, 1, of_one);
    }
    return {size_figure("chassis up", "ms", size, of_many.start, of_one.start),
            size_figure("memory", "KiB", size, of_many.memory, of_one.memory)};
}

} // namespace

std::vector<figure> measure_chassis_size()
{
    const auto one = chassis_of(1, 1);
    expect_done(one->chassis({"down"}));
    std::vector<figure> figures;
    for (const unsigned size : SIZES) {
        for (const figure &told : measure_size(size, *one))
            figures.push_back(told);
    }
    figures.back().remark = "every card runs the daemon; memory is the sum of the proportional shares (PSS) of all "
                            "processes of the launcher and of the cards, while no other chassis is up";
    return figures;
}
