// A programming that is cut off at each operation of the flash: before it, in its middle, after it. The process of
// the operation dies there; what becomes of the flash, and whether the next request puts it right, is looked at
// each time.
#include <iterator>
#include <numeric>
#include <random>

#include <gtest/gtest.h>

#include "figures.h"
#include "programmed_flash.h"

namespace
{

constexpr unsigned FEW_SEEDS = 30;
constexpr unsigned ALL_SEEDS = 500;

struct cut_plan {
    flash_way way;
    const char *cut; // a fault of flash_faults.h with which the process dies
};

class cut_flash_test : public testing::Test
{
protected:
    explicit cut_flash_test(flash_way way) : flash_(way) {}

    // Whatever was told or can be read: it is never said of a flash that it is whole when it is not.
    void expect_honest(const programming_end &end) const
    {
        EXPECT_TRUE(end.percent < 100 || flash_.is_new()) << "told as programmed";
        EXPECT_TRUE(flash_.is_marked() || flash_.is_old() || flash_.is_new()) << "half programmed, without marker";
        const std::string version = flash_.version();
        EXPECT_TRUE(version.empty() || (version == flash_.old_version && flash_.is_old()) ||
                    (version == flash_.new_version && flash_.is_new()))
            << "read as" << version;
        EXPECT_TRUE(flash_.is_alternate_untouched());
        EXPECT_EQ(flash_.violations(), "");
    }
    void expect_completed(const programming_end &end) const
    {
        EXPECT_FALSE(end.was_killed);
        EXPECT_EQ(end.result, 0U) << end;
        EXPECT_EQ(end.percent, 100U) << end;
        EXPECT_EQ(end.pauses, 0U) << end;
        EXPECT_TRUE(flash_.is_new());
        EXPECT_FALSE(flash_.is_marked());
        EXPECT_EQ(flash_.version(), flash_.new_version);
    }
    void cut_at(const std::string &rule) const
    {
        flash_.reset();
        const programming_end cut = flash_.program(rule);
        EXPECT_TRUE(cut.was_killed) << "there is no such operation";
        EXPECT_EQ(flash_.faults_left(), "");
        EXPECT_TRUE(flash_.is_free()) << "the flash is still locked";
        expect_honest(cut);

        const programming_end next = flash_.program();
        expect_completed(next);
        expect_honest(next);
    }

    const programmed_flash flash_;
};

class FlashCuts : public cut_flash_test, public testing::WithParamInterface<cut_plan>
{
protected:
    FlashCuts() : cut_flash_test(GetParam().way) {}
};

class RepeatedCuts : public cut_flash_test, public testing::WithParamInterface<flash_way>
{
protected:
    RepeatedCuts() : cut_flash_test(GetParam()) {}

    // A cut somewhere in one programming.
    std::string random_rule(std::mt19937 &random) const
    {
        static constexpr const char *CUTS[] = {"stop ", "torn ", "after "};
        unsigned place = static_cast<unsigned>(random() % total_) + 1;
        auto operation = operations_.begin();
        for (; place > operation->second; ++operation)
            place -= operation->second;
        return CUTS[random() % std::size(CUTS)] + operation->first + " " + std::to_string(place);
    }
    // A repair needs fewer operations than a whole programming: its cut may not be reached.
    void cut_in_a_row(std::mt19937 &random) const
    {
        flash_.reset();
        const unsigned cuts = static_cast<unsigned>(random() % 4) + 2;
        for (unsigned cut = 0; cut < cuts; ++cut) {
            const std::string rule = random_rule(random);
            SCOPED_TRACE(rule);
            const programming_end end = flash_.program(rule);
            EXPECT_EQ(end.was_killed, flash_.faults_left().empty());
            flash_.remove_faults();
            expect_honest(end);
        }
        const programming_end next = flash_.program();
        expect_completed(next);
        expect_honest(next);
    }

    const std::map<std::string, unsigned> operations_ = flash_.count_operations();
    const unsigned total_ = std::accumulate(operations_.begin(), operations_.end(), 0U,
                                            [](unsigned sum, const auto &row) { return sum + row.second; });
};

} // namespace

TEST_P(FlashCuts, LeaveAFlashThatTheNextRequestCompletes)
{
    point_figures figures(std::string("cuts of the child, ") + name_of(GetParam().way) + ", " + GetParam().cut);
    for (const auto &[operation, count] : flash_.count_operations()) {
        ASSERT_GT(count, 1U) << operation;
        for (unsigned place = 1; place <= count; ++place) {
            const std::string rule = GetParam().cut + (" " + operation + " " + std::to_string(place));
            figures.try_point(rule, [&] { cut_at(rule); });
        }
    }
    EXPECT_GT(figures.points(), 270U);
}

// The repair of a flash is cut off as well, and the repair of that one.
TEST_P(RepeatedCuts, LeaveAFlashThatTheNextRequestCompletes)
{
    const unsigned seeds = tries_all() ? ALL_SEEDS : FEW_SEEDS;
    point_figures figures(std::string("repeated cuts of the child, ") + name_of(GetParam()));
    for (unsigned seed = 1; seed <= seeds; ++seed) {
        std::mt19937 random(seed);
        figures.try_point("seed " + std::to_string(seed), [&] { cut_in_a_row(random); });
    }
}

INSTANTIATE_TEST_SUITE_P(Each, RepeatedCuts, testing::Values(flash_way::plain, flash_way::chipset),
                         [](const testing::TestParamInfo<flash_way> &row) { return name_of(row.param); });
INSTANTIATE_TEST_SUITE_P(Each, FlashCuts,
                         testing::Values(cut_plan{flash_way::plain, "stop"}, cut_plan{flash_way::plain, "torn"},
                                         cut_plan{flash_way::plain, "after"}, cut_plan{flash_way::chipset, "stop"},
                                         cut_plan{flash_way::chipset, "torn"},
                                         cut_plan{flash_way::chipset, "after"}),
                         [](const testing::TestParamInfo<cut_plan> &row) {
                             return std::string(name_of(row.param.way)) + "_" + row.param.cut;
                         });
