// Flashes with faults, and what the daemon's program operations make of them: a fault that passes is recovered
// from, in as many attempts as there are, one that stays ends with a code, and no flash is ever told to be
// programmed when it is not.
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "bios_flash.h"
#include "figures.h"
#include "programmed_flash.h"

namespace
{

constexpr unsigned FEW_SEEDS = 5;
constexpr unsigned ALL_SEEDS = 40;

// A fault at random, at the rates at which every programming recovers, and at some at which not all do.
struct fault_plan {
    flash_way way;
    const char *fault;
    std::vector<const char *> recovered_rates;
    std::vector<const char *> too_high_rates;
};

class FaultyFlash : public testing::Test
{
protected:
    explicit FaultyFlash(flash_way way) : flash_(way) {}

    // The flash is told to be programmed if, and only if, it is; else there is a code that says what it is.
    void expect_honest(const programming_end &end, bool &recovered) const
    {
        ASSERT_FALSE(end.was_killed);
        recovered = end.result == 0;
        EXPECT_EQ(end.percent == 100, recovered) << end;
        if (recovered) {
            EXPECT_TRUE(flash_.is_new()) << end;
            EXPECT_FALSE(flash_.is_marked()) << end;
        } else if (end.result == BIOS_FLASH_ERR_NO_FLASH) {
            EXPECT_TRUE(flash_.is_old()) << end << ": not as it was before";
            EXPECT_FALSE(flash_.is_marked()) << end;
        } else {
            EXPECT_TRUE(end.result == BIOS_FLASH_ERR_ERASE || end.result == BIOS_FLASH_ERR_PROGRAM) << end;
            EXPECT_TRUE(flash_.is_marked() || flash_.is_old()) << end << ": changed without a marker";
        }
        EXPECT_TRUE(flash_.is_alternate_untouched());
        EXPECT_TRUE(flash_.is_free());
    }
    void expect_next_succeeds() const
    {
        flash_.remove_faults();
        const programming_end next = flash_.program();
        EXPECT_EQ(next.result, 0U) << next;
        EXPECT_TRUE(flash_.is_new());
        EXPECT_FALSE(flash_.is_marked());
    }

    const programmed_flash flash_;
};

class RandomFaults : public FaultyFlash, public testing::WithParamInterface<fault_plan>
{
protected:
    RandomFaults() : FaultyFlash(GetParam().way) {}

    void run_seeds(const std::string &rate, bool must_recover)
    {
        const unsigned seeds = tries_all() ? ALL_SEEDS : FEW_SEEDS;
        const std::string name =
            std::string("random ") + GetParam().fault + " " + rate + "%, " + name_of(GetParam().way);
        point_figures figures(name);
        unsigned recovered = 0;
        for (unsigned seed = 1; seed <= seeds; ++seed) {
            const std::string rule = std::string("random ") + GetParam().fault + " " + rate + "% ";
            figures.try_point(rule + std::to_string(seed), [&] {
                // Neighbouring seeds are steps of one sequence: these are far apart.
                flash_.reset();
                const programming_end end = flash_.program(rule + std::to_string(std::mt19937_64(seed)()));
                bool has_recovered = false;
                expect_honest(end, has_recovered);
                EXPECT_TRUE(has_recovered || !must_recover) << end;
                recovered += has_recovered ? 1U : 0U;
                expect_next_succeeds();
            });
        }
        figures.remark(std::to_string(recovered) + " recovered");
    }
};

class PermanentFaults : public FaultyFlash, public testing::WithParamInterface<flash_way>
{
protected:
    PermanentFaults() : FaultyFlash(GetParam()) {}
};

class SingleFaults : public FaultyFlash, public testing::WithParamInterface<flash_way>
{
protected:
    SingleFaults() : FaultyFlash(GetParam()) {}
};

std::string name_of_plan(const testing::TestParamInfo<fault_plan> &row)
{
    std::string name = std::string(name_of(row.param.way)) + "_" + row.param.fault;
    name.replace(name.find(' '), 1, "_");
    return name;
}

std::string name_of_way(const testing::TestParamInfo<flash_way> &row)
{
    return name_of(row.param);
}

} // namespace

TEST_P(RandomFaults, AreRecoveredFromUpToARate)
{
    for (const char *rate : GetParam().recovered_rates)
        run_seeds(rate, true);
}

TEST_P(RandomFaults, AboveItEndHonestly)
{
    for (const char *rate : GetParam().too_high_rates)
        run_seeds(rate, false);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Each, RandomFaults, testing::ValuesIn(std::vector<fault_plan>{
    {flash_way::plain,    "fail erase",    {"0.1", "1"},                {"2", "20"}},
    {flash_way::plain,    "lie erase",     {"0.1", "1", "5", "20"},     {"50"}},
    {flash_way::plain,    "flip erase",    {"0.1", "1", "5", "20"},     {"50"}},
    {flash_way::plain,    "fail program",  {"0.01", "0.1"},             {"1", "5"}},
    {flash_way::plain,    "lie program",   {"0.01", "0.1", "1"},        {"5"}},
    {flash_way::plain,    "part program",  {"0.01", "0.1", "1"},        {"5"}},
    {flash_way::plain,    "fail read",     {"0.1", "1", "5"},           {"20", "50"}},
    {flash_way::plain,    "lie read",      {"0.1", "1", "5"},           {"20", "50"}},
    {flash_way::plain,    "part read",     {"0.1", "1", "5"},           {"20", "50"}},
    {flash_way::plain,    "flip read",     {"0.1", "1", "5"},           {"20", "50"}},
    {flash_way::plain,    "fail marker",   {"1", "5", "20"},            {"90"}},
    {flash_way::plain,    "lie marker",    {"1", "5", "20"},            {"90"}},
    {flash_way::chipset,  "fail erase",    {"0.1", "1", "2"},           {"20"}},
    {flash_way::chipset,  "lie erase",     {"0.1", "1", "5", "20"},     {"50"}},
    {flash_way::chipset,  "flip erase",    {"0.1", "1", "5", "20"},     {"50"}},
    {flash_way::chipset,  "fail program",  {"0.01", "0.1"},             {"1", "5"}},
    {flash_way::chipset,  "lie program",   {"0.01", "0.1", "1", "5"},   {"20"}},
    {flash_way::chipset,  "part program",  {"0.01", "0.1", "1", "5"},   {"20"}},
    {flash_way::chipset,  "fail read",     {"0.1", "1", "5", "20"},     {"50"}},
    {flash_way::chipset,  "lie read",      {"0.1", "1", "5", "20"},     {"50"}},
    {flash_way::chipset,  "part read",     {"0.1", "1", "5", "20"},     {"50"}},
    {flash_way::chipset,  "flip read",     {"0.1", "1", "5", "20"},     {"50"}},
    {flash_way::chipset,  "fail marker",   {"1", "5", "20"},            {"90"}},
    {flash_way::chipset,  "lie marker",    {"1", "5", "20"},            {"90"}},
}), name_of_plan);
// clang-format on

TEST_P(PermanentFaults, EndWithACode)
{
    point_figures figures(std::string("permanent faults, ") + name_of(GetParam()));
    for (const char *fault :
         {"fail erase", "lie erase", "part erase", "flip erase", "fail program", "lie program", "part program",
          "flip program", "fail read", "lie read", "part read", "flip read", "fail marker", "lie marker"}) {
        figures.try_point(fault, [&] {
            flash_.reset();
            const programming_end end = flash_.program(std::string(fault) + " always");
            bool has_recovered = false;
            expect_honest(end, has_recovered);
            EXPECT_FALSE(has_recovered) << end;
            expect_next_succeeds();
        });
    }
}

// Each erase and each page, in turn, goes wrong once.
TEST_P(SingleFaults, OfErasesAndWritesAreRecoveredFrom)
{
    point_figures figures(std::string("single write faults, ") + name_of(GetParam()));
    const auto count = flash_.count_operations();
    for (const std::string fault : {"fail erase", "lie erase", "part erase", "flip erase", "fail program",
                                    "lie program", "part program", "fail marker", "lie marker"}) {
        const unsigned places = count.at(fault.substr(fault.find(' ') + 1));
        for (unsigned place = 1; place <= places; ++place) {
            const std::string rule = fault + " " + std::to_string(place);
            figures.try_point(rule, [&] {
                flash_.reset();
                const programming_end end = flash_.program(rule);
                bool has_recovered = false;
                expect_honest(end, has_recovered);
                EXPECT_TRUE(has_recovered) << end;
                EXPECT_LE(end.pauses, 1U) << "more than a second attempt";
                EXPECT_EQ(flash_.faults_left(), "");
                EXPECT_EQ(flash_.violations(), "");
            });
        }
    }
}

// Each read, in turn, is disturbed once: that costs neither an attempt nor an erase.
TEST_P(SingleFaults, OfReadsCostNothing)
{
    point_figures figures(std::string("single read faults, ") + name_of(GetParam()));
    const auto count = flash_.count_operations();
    for (const std::string fault : {"fail read", "lie read", "part read", "flip read"}) {
        for (unsigned place = 1; place <= count.at("read"); ++place) {
            const std::string rule = fault + " " + std::to_string(place);
            figures.try_point(rule, [&] {
                flash_.reset();
                const programming_end end = flash_.program(rule);
                bool has_recovered = false;
                expect_honest(end, has_recovered);
                EXPECT_TRUE(has_recovered) << end;
                EXPECT_EQ(end.pauses, 0U) << end;
                EXPECT_EQ(end.erases, count.at("erase")) << end;
                EXPECT_EQ(flash_.faults_left(), "");
            });
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Each, PermanentFaults, testing::Values(flash_way::plain, flash_way::chipset), name_of_way);
INSTANTIATE_TEST_SUITE_P(Each, SingleFaults, testing::Values(flash_way::plain, flash_way::chipset), name_of_way);
