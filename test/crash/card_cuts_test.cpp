// Cards that are cut off at each operation of their flash, on the way from a request to its report: the programming
// child dies, or its daemon with it, or the power of the card goes.
#include "cut_card.h"
#include "figures.h"

namespace
{

constexpr unsigned PLAIN_CARD = 90;
constexpr unsigned CHIPSET_CARD = 106;

constexpr cut_path OWN_PLAIN = {"own_plain", PLAIN_CARD, 1};
constexpr cut_path OWN_CHIPSET = {"own_chipset", CHIPSET_CARD, 1};
constexpr cut_path STANDBY_PLAIN = {"standby_plain", PLAIN_CARD, 2};
constexpr cut_path STANDBY_CHIPSET = {"standby_chipset", CHIPSET_CARD, 2};

struct card_cut {
    cut_path path;
    cut_reach reach;
    const char *cut;
};

std::vector<card_cut> cuts_of(const std::vector<cut_path> &paths)
{
    std::vector<card_cut> all;
    for (const cut_path &path : paths) {
        for (const cut_reach reach : {cut_reach::child, cut_reach::daemon, cut_reach::card}) {
            for (const char *cut : {"stop", "torn", "after"})
                all.push_back({path, reach, cut});
        }
    }
    return all;
}

class CardCuts : public cut_card_test, public testing::WithParamInterface<card_cut>
{
};

std::string name_of_cut(const testing::TestParamInfo<card_cut> &row)
{
    return std::string(row.param.path.name) + "_" + name_of(row.param.reach) + "_" + row.param.cut;
}

} // namespace

TEST_P(CardCuts, LeaveACardThatTheNextRequestCompletes)
{
    const card_cut &plan = GetParam();
    start(plan.path);
    point_figures figures(std::string("cuts of the ") + name_of(plan.reach) + ", " + plan.path.name + ", " +
                          plan.cut);
    for (const auto &[operation, count] : count_operations()) {
        ASSERT_GT(count, 1U) << operation;
        for (unsigned place = 1; place <= count; ++place) {
            figures.try_point(operation + " " + std::to_string(place),
                              [&] { cut_at(plan.reach, plan.cut, operation, place); });
        }
    }
}

// With script/test the cuts of one path; with script/crash all.
INSTANTIATE_TEST_SUITE_P(Path, CardCuts, testing::ValuesIn(cuts_of({OWN_PLAIN})), name_of_cut);
INSTANTIATE_TEST_SUITE_P(FurtherPath, CardCuts,
                         testing::ValuesIn(cuts_of({OWN_CHIPSET, STANDBY_PLAIN, STANDBY_CHIPSET})), name_of_cut);
