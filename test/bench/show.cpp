// "biosctl show" of chassis of several sizes, each against a chassis of one card.
#include <algorithm>
#include <array>
#include <stdexcept>

#include "benchmarks.h"
#include "in_turn.h"
#include "many_cards.h"
#include "timed_process.h"

namespace
{

constexpr std::array SIZES{2U, 8U, 32U, 128U};
constexpr unsigned DAEMONS = 8; // that have an image tree, whose images the agents unpack

unsigned count_of(const std::string &text, const std::string &wanted)
{
    unsigned count = 0;
    for (auto place = text.find(wanted); place != std::string::npos; place = text.find(wanted, place + 1))
        ++count;
    return count;
}

// What is timed has to be a table with the versions of all cards.
void expect_versions(const bench_chassis &cards, unsigned size)
{
    const finished_program shown = cards.biosctl({"show"});
    const unsigned daemons = std::min(size, DAEMONS);
    if (shown.exit_code != 0 || count_of(shown.output, "update available\n") != daemons ||
        count_of(shown.output, "v1.2") < size)
        throw std::runtime_error("biosctl show does not tell the versions: " + shown.output + shown.errors);
}

struct shown_chassis {
    unsigned size;
    std::unique_ptr<bench_chassis> cards;
    samples taken;
};

shown_chassis make_chassis(unsigned size)
{
    shown_chassis made{.size = size,
                       .cards = chassis_of(size, std::min(size, DAEMONS)),
                       .taken = {.name = std::to_string(size) + (size == 1 ? " card" : " cards"), .values = {}}};
    expect_versions(*made.cards, size);
    return made;
}

void measure_once(shown_chassis &shown)
{
    shown.taken.values.push_back(run_timed_ms(shown.cards->biosctl_words({"show"})));
}

} // namespace

// All sizes in turn, against the same chassis of one card.
std::vector<figure> measure_show()
{
    shown_chassis one = make_chassis(1);
    std::vector<shown_chassis> all;
    for (const unsigned size : SIZES)
        all.push_back(make_chassis(size));
    for (unsigned run = 0; run < LEAST_RUNS; ++run) {
        measure_once(one);
        for (shown_chassis &shown : all)
            measure_once(shown);
    }
    std::vector<figure> figures;
    for (const shown_chassis &shown : all)
        figures.push_back({.row = 11,
                           .name = "biosctl show, " + std::to_string(shown.size) + " cards",
                           .unit = "ms",
                           .ours = shown.taken,
                           .reference = one.taken,
                           .goal = static_cast<double>(shown.size)});
    figures.back().remark =
        "slots 1 to " + std::to_string(DAEMONS) +
        " run the daemon and have an image tree; the further slots run module_standin, and have none";
    return figures;
}
