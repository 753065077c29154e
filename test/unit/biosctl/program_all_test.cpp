// biosctl program all: which cards are programmed in which order, when it stops, and how it ends.
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "biosctl_daemons.h"
#include "program_all.h"

namespace
{

constexpr const char *NEW = "v3.5.0(09/17/12)";

programming_result ended(exit_code exit)
{
    return no_answer({.asked_module = 1}, {.exit = exit});
}

// The supervisors are in the slots 27 (active) and 28 (standby).
class ProgramAll : public ::testing::Test
{
protected:
    ProgramAll()
    {
        active_.shipped = NEW;
        active_.journal = chassis_.path() + "/journal";
    }
    int program_all(std::vector<std::string> words = {})
    {
        const scripted_daemon active(chassis_, 27, healthy(active_));
        words.insert(words.begin(), {"--dir", chassis_.path(), "program", "all"});
        run_ = std::make_unique<biosctl_run>(words);
        return run_->exit_code();
    }
    std::string journal() const { return text_of_file(active_.journal); }
    bool out_has(const std::string &text) const { return run_->out().find(text) != std::string::npos; }
    bool err_has(const std::string &text) const { return run_->err().find(text) != std::string::npos; }

    test_chassis chassis_;
    healthy_card active_;
    std::unique_ptr<biosctl_run> run_;
};

} // namespace

TEST_F(ProgramAll, TheStandbyIsFirstAndBothGoThroughTheActiveSupervisor)
{
    EXPECT_EQ(program_all(), 0) << run_->err();
    EXPECT_EQ(journal(), "program 28\nprogram 27\n");
    EXPECT_TRUE(out_has("module 28: programmed and verified")) << run_->out();
    EXPECT_TRUE(out_has("MODULE  OUTCOME                   RESULT      TIME\n"
                        "28      programmed and verified   0x00000000  00:00\n"
                        "27      programmed and verified   0x00000000  00:00\n"))
        << run_->out();
    EXPECT_TRUE(out_has("all programmed and verified\n")) << run_->out();
}

TEST_F(ProgramAll, StopsAtTheFirstFailure)
{
    active_.results = {{28, 0x40710009}};
    EXPECT_EQ(program_all(), 1);
    EXPECT_EQ(journal(), "program 28\n");
    EXPECT_TRUE(out_has("28      failed                    0x40710009")) << run_->out();
    EXPECT_TRUE(out_has("27      not tried                 -           -")) << run_->out();
    EXPECT_TRUE(err_has("module 28: programming failed: 0x40710009 (erase_failed)")) << run_->err();
    EXPECT_TRUE(err_has("biosctl: not all programmed: module 28, 27")) << run_->err();
}

TEST_F(ProgramAll, GoesOnAfterAFailureWhenToldToAndEndsWithTheWorst)
{
    active_.results = {{28, 0x40710009}};
    EXPECT_EQ(program_all({"--keep-going"}), 1);
    EXPECT_EQ(journal(), "program 28\nprogram 27\n");
    EXPECT_TRUE(out_has("27      programmed and verified   0x00000000")) << run_->out();
    EXPECT_TRUE(err_has("not all programmed: module 28\n")) << run_->err();
}

TEST_F(ProgramAll, NothingProgrammedIsAFailure)
{
    active_.results = {{28, 0}}; // result 0 at ten percent
    EXPECT_EQ(program_all(), 1);
    EXPECT_EQ(journal(), "program 28\n");
    EXPECT_TRUE(out_has("28      not verified")) << run_->out();
}

TEST_F(ProgramAll, WhereOnlyModule18IsProgrammedItIsProgrammedOnce)
{
    chassis_.insert(27, 1, 316, 1);
    chassis_.insert(28, 1, 316, 0);
    chassis_.insert(18, 1, 316, 2);
    EXPECT_EQ(program_all({"--json"}), 0) << run_->err();
    EXPECT_EQ(journal(), "program 18\n");
    const auto told = nlohmann::json::parse(run_->out(), nullptr, false);
    ASSERT_TRUE(told.is_object()) << run_->out();
    EXPECT_EQ(told["modules"].size(), 1u);
    EXPECT_EQ(told["left_out"], nlohmann::json::array({27}));
}

TEST_F(ProgramAll, WhereOnlyModule18IsProgrammedAndNoSupervisorIsInItNothingIsAskedFor)
{
    chassis_.insert(27, 1, 316, 1);
    EXPECT_EQ(program_all(), 3);
    EXPECT_EQ(journal(), "");
    EXPECT_TRUE(err_has("no supervisor in slot 18")) << run_->err();
}

TEST_F(ProgramAll, JsonIsOneObjectWithAllModules)
{
    active_.results = {{28, 0x40710021}};
    EXPECT_EQ(program_all({"--json"}), 1);
    const auto told = nlohmann::json::parse(run_->out(), nullptr, false);
    ASSERT_TRUE(told.is_object()) << run_->out();
    EXPECT_EQ(told["modules"][0]["module"], 28);
    EXPECT_EQ(told["modules"][0]["result"], "0x40710021");
    EXPECT_EQ(told["modules"][0]["exit_code"], 1);
    EXPECT_EQ(told["modules"][1]["outcome"], "not tried");
    EXPECT_EQ(told["exit_code"], 1);
}

TEST_F(ProgramAll, AModuleThatIsNamedIsPutIntoTheRequestAsTheOneThatIsProgrammed)
{
    chassis_.insert(27, 1, 183, 1);
    chassis_.insert(18, 2, 90, 0);
    const scripted_daemon active(chassis_, 27, healthy(active_));
    biosctl_run run({"--dir", chassis_.path(), "program", "5"});
    EXPECT_EQ(run.exit_code(), 0) << run.err();
    EXPECT_EQ(journal(), "program 18\n") << "the daemon would hand the request to module 5";
}

TEST_F(ProgramAll, CtrlCEndsIt)
{
    const scripted_daemon active(chassis_, 27, [](daemon_side &side) {
        (void)side.receive(4791);
        side.answer(0);
        side.progress(2, 50);
    });
    biosctl_run run({"--dir", chassis_.path(), "program", "all", "--json", "--keep-going"});
    ASSERT_TRUE(run.wait_for_error_text("50% writing")) << run.err();
    run.signal(SIGINT);
    EXPECT_EQ(run.exit_code(), 130);
    const auto told = nlohmann::json::parse(run.out(), nullptr, false);
    ASSERT_TRUE(told.is_object()) << run.out();
    EXPECT_EQ(told["modules"][0]["outcome"], "goes on");
    EXPECT_EQ(told["modules"][1]["outcome"], "not tried");
}

TEST_F(ProgramAll, CtrlCBeforeTheAnswerTellsWhatWasDoneBefore)
{
    const std::string second = chassis_.path() + "/second";
    const scripted_daemon active(chassis_, 27, [&](daemon_side &side) {
        (void)side.receive(4791);
        side.answer(0);
        side.progress(3, 100);
        side.notify(0, 28);
        (void)side.receive(4791);
        std::ofstream(second) << "yes";
    });
    biosctl_run run({"--dir", chassis_.path(), "program", "all", "--json"});
    for (int k = 0; k < 3000 && !std::filesystem::exists(second); ++k)
        ::usleep(10'000);
    run.signal(SIGINT);
    EXPECT_EQ(run.exit_code(), 130);
    const auto told = nlohmann::json::parse(run.out(), nullptr, false);
    ASSERT_TRUE(told.is_object()) << run.out();
    EXPECT_EQ(told["modules"][0]["verified"], true);
    EXPECT_EQ(told["modules"][1]["exit_code"], 130);
    EXPECT_EQ(told["exit_code"], 130);
}

TEST(SupervisorOrder, IsTheStandbyAndThenTheActiveOne)
{
    EXPECT_EQ(order_of(1, {2}, std::nullopt).modules, (std::vector<unsigned>{2, 1}));
    EXPECT_EQ(order_of(2, {1}, std::nullopt).modules, (std::vector<unsigned>{1, 2}));
    EXPECT_EQ(order_of(1, {}, std::nullopt).modules, (std::vector<unsigned>{1}));
}

TEST(SupervisorOrder, LeavesOutWhatTheActiveOneCannotProgram)
{
    EXPECT_EQ(order_of(17, {18}, 18).modules, (std::vector<unsigned>{18}));
    EXPECT_EQ(order_of(17, {18}, 18).left_out, (std::vector<unsigned>{17}));
    EXPECT_EQ(order_of(18, {17}, 18).modules, (std::vector<unsigned>{18}));
    EXPECT_TRUE(order_of(1, {2}, 18).modules.empty());
}

TEST(SeriesExit, IsTheWorstOfTheModules)
{
    const auto exit_of = [](std::vector<exit_code> exits) {
        std::vector<programming_result> results;
        for (const exit_code exit : exits)
            results.push_back(ended(exit));
        results.push_back({});
        return series_exit(results);
    };
    EXPECT_EQ(exit_of({EXIT_DONE, EXIT_DONE}), EXIT_DONE);
    EXPECT_EQ(exit_of({EXIT_NOTHING_TO_DO, EXIT_DONE}), EXIT_DONE);
    EXPECT_EQ(exit_of({EXIT_NOTHING_TO_DO, EXIT_NOTHING_TO_DO}), EXIT_NOTHING_TO_DO);
    EXPECT_EQ(exit_of({EXIT_DONE, EXIT_BUSY}), EXIT_BUSY);
    EXPECT_EQ(exit_of({EXIT_NOT_FOUND, EXIT_BUSY}), EXIT_NOT_FOUND);
    EXPECT_EQ(exit_of({EXIT_BUSY, EXIT_FAILED, EXIT_NOT_FOUND}), EXIT_FAILED);
    EXPECT_EQ(exit_of({EXIT_FAILED, EXIT_INTERRUPTED}), EXIT_INTERRUPTED);
}
