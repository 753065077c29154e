// biosctl sync against daemons that serve from memory: what is programmed, in which order, and how it ends.
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "biosctl_daemons.h"
#include "modlock.h"
#include "sync.h"

namespace
{

constexpr const char *OLD = "v3.1.0(02/11/11)";
constexpr const char *NEW = "v3.5.0(09/17/12)";

// The supervisors are in the slots 27 (active) and 28 (standby); the line card of slot 5 serves nothing, and has no
// agent.
class Sync : public ::testing::Test
{
protected:
    Sync()
    {
        active_.flashes = {{27, OLD}, {28, OLD}};
        active_.running = OLD;
        active_.shipped = NEW;
        active_.journal = chassis_.path() + "/journal";
        chassis_.end_agent(5);
    }
    // What the agents of the cards say before anything is programmed.
    void tell_agents() const
    {
        for (const auto &[module, version] : active_.flashes)
            chassis_.card_holds(module, version, active_.running);
        chassis_.agent_says(27, "ships", active_.shipped);
    }
    int sync(std::vector<std::string> words)
    {
        const scripted_daemon active(chassis_, 27, healthy(active_));
        const scripted_daemon standby(chassis_, 28, healthy({}));
        tell_agents();
        words.insert(words.begin(), {"--dir", chassis_.path(), "sync", "--timeout", "10"});
        run_ = std::make_unique<biosctl_run>(words);
        return run_->exit_code();
    }
    std::string journal() const { return text_of_file(active_.journal); }
    nlohmann::json json() const { return nlohmann::json::parse(run_->out(), nullptr, false); }
    bool out_has(const std::string &text) const { return run_->out().find(text) != std::string::npos; }
    bool err_has(const std::string &text) const { return run_->err().find(text) != std::string::npos; }

    test_chassis chassis_;
    healthy_card active_;
    std::unique_ptr<biosctl_run> run_;
};

} // namespace

TEST_F(Sync, ProgramsTheStandbyFirstAndTheActiveSupervisorLast)
{
    EXPECT_EQ(sync({"27", "28"}), 0) << run_->err();
    EXPECT_EQ(journal(), "program 28\nprogram 27\n");
    EXPECT_TRUE(out_has("28      v3.1.0(02/11/11)   v3.5.0(09/17/12)   program: update")) << run_->out();
    EXPECT_TRUE(out_has("27    v3.5.0(09/17/12)  v3.5.0(09/17/12)  v3.1.0(02/11/11)  reboot pending"))
        << run_->out();
    EXPECT_TRUE(out_has("all in step (reboot pending: 2)")) << run_->out();
}

TEST_F(Sync, ADryRunTellsThePlanAndProgramsNothing)
{
    EXPECT_EQ(sync({"27", "28", "--dry-run"}), 0) << run_->err();
    EXPECT_EQ(journal(), "");
    EXPECT_TRUE(out_has("28      v3.1.0(02/11/11)   v3.5.0(09/17/12)   program: update")) << run_->out();
    active_.flashes = {{27, NEW}, {28, NEW}};
    EXPECT_EQ(sync({"27", "28", "--dry-run"}), 2) << run_->err();
    active_.flashes = {{27, NEW}};
    chassis_.end_agent(28);
    EXPECT_EQ(sync({"27", "28", "--dry-run"}), 1) << "nothing can be done, and a card is not in step";
    EXPECT_EQ(journal(), "");
}

TEST_F(Sync, WhatIsInStepIsNothingToDo)
{
    active_.flashes = {{27, NEW}, {28, NEW}};
    EXPECT_EQ(sync({"27", "28"}), 2);
    EXPECT_EQ(journal(), "");
    EXPECT_TRUE(err_has("nothing to do: all in step (reboot pending: 2)")) << run_->err();
}

TEST_F(Sync, AnOlderImageIsProgrammedOnlyOnDemand)
{
    active_.shipped = OLD;
    active_.flashes = {{27, NEW}, {28, OLD}};
    EXPECT_EQ(sync({"27", "28"}), 1);
    EXPECT_EQ(journal(), "");
    EXPECT_TRUE(err_has("not in step: module 27\n")) << run_->err();
    EXPECT_TRUE(err_has("--allow-older"));
    EXPECT_EQ(sync({"27", "28", "--allow-older"}), 0) << run_->err();
    EXPECT_EQ(journal(), "program 27\n");
}

TEST_F(Sync, AHalfProgrammedFlashIsProgrammedAgain)
{
    active_.flashes = {{27, NEW}, {28, ""}};
    EXPECT_EQ(sync({"27", "28"}), 0) << run_->err();
    EXPECT_EQ(journal(), "program 28\n");
    EXPECT_TRUE(out_has("program: flash has no version")) << run_->out();
}

TEST_F(Sync, AFlashThatIsNotVerifiedIsProgrammedAgainWhateverIsReadFromIt)
{
    active_.flashes = {{27, NEW}, {28, NEW}};
    active_.results = {{28, 0x40710009}};
    chassis_.agent_says(28, "flash_state", "1");
    EXPECT_EQ(sync({"27", "28"}), 1) << run_->err();
    EXPECT_EQ(journal(), "program 28\n");
    EXPECT_TRUE(out_has("28      -                  v3.5.0(09/17/12)   program: not verified")) << run_->out();
    EXPECT_TRUE(out_has("28    v3.5.0(09/17/12)  -                 v3.1.0(02/11/11)  not verified: do not reboot"));
}

TEST_F(Sync, ACardWhoseAgentDoesNotAnswerIsLeft)
{
    active_.flashes = {{27, NEW}, {28, OLD}};
    chassis_.end_agent(28);
    EXPECT_EQ(sync({"27", "28"}), 1);
    EXPECT_EQ(journal(), "");
    EXPECT_TRUE(out_has("28      v3.1.0(02/11/11)   -                  left: unconfirmed")) << run_->out();
    EXPECT_TRUE(out_has("module 28: its agent does not answer")) << run_->out();
}

TEST_F(Sync, AProgrammingWithoutALockMakesItBusy)
{
    chassis_.agent_says(28, "flash_state", "2");
    EXPECT_EQ(sync({"27", "28"}), 4);
    EXPECT_EQ(journal(), "");
    EXPECT_TRUE(out_has("28      -                  v3.5.0(09/17/12)   left: being programmed")) << run_->out();
}

TEST_F(Sync, StopsAtTheFirstFailure)
{
    active_.results = {{28, 0x40710009}};
    EXPECT_EQ(sync({"27", "28"}), 1);
    EXPECT_EQ(journal(), "program 28\n");
    EXPECT_TRUE(out_has("28      failed                    0x40710009")) << run_->out();
    EXPECT_TRUE(out_has("27      not tried")) << run_->out();
    EXPECT_TRUE(err_has("not in step: module 28, 27")) << run_->err();
}

TEST_F(Sync, GoesOnAfterAFailureWhenToldTo)
{
    active_.results = {{28, 0x40710009}};
    EXPECT_EQ(sync({"27", "28", "--keep-going", "--json"}), 1);
    EXPECT_EQ(journal(), "program 28\nprogram 27\n");
    EXPECT_EQ(json()["programmed"][0]["result"], "0x40710009") << run_->out();
    EXPECT_EQ(json()["programmed"][1]["verified"], true);
    EXPECT_EQ(json()["all_in_step"], false);
    EXPECT_EQ(json()["error"], "not in step: module 28");
}

TEST_F(Sync, AFlashThatHoldsAnotherVersionAfterwardsIsAFailure)
{
    active_.brought = "v3.4.0(01/01/12)";
    EXPECT_EQ(sync({"28"}), 1);
    EXPECT_TRUE(err_has("its flash holds v3.4.0(01/01/12) and not v3.5.0(09/17/12)")) << run_->err();
    EXPECT_TRUE(out_has("28      other version")) << run_->out();
}

TEST_F(Sync, AModuleThatDoesNotAnswerIsNotInStep)
{
    active_.flashes = {{27, NEW}, {28, NEW}};
    EXPECT_EQ(sync({}), 1);
    EXPECT_TRUE(out_has("5       -                  -                  left: unreachable")) << run_->out();
    EXPECT_TRUE(err_has("not in step: module 5")) << run_->err();
    active_.flashes = {{27, NEW}, {28, OLD}};
    EXPECT_EQ(sync({}), 1) << "the others are programmed all the same";
    EXPECT_EQ(journal(), "program 28\n");
}

TEST_F(Sync, ALineCardIsNotTriedAndTheReasonIsTold)
{
    active_.flashes = {{19, OLD}};
    chassis_.insert(19, 2, 90, 0);
    EXPECT_EQ(sync({"19"}), 1);
    EXPECT_EQ(journal(), "");
    EXPECT_TRUE(out_has("left: no way to bring an image")) << run_->out();
    EXPECT_TRUE(out_has("module 19: the active supervisor hands an image to the standby supervisor only"));
}

TEST_F(Sync, DuringAProgrammingItIsBusy)
{
    const std::string locked = chassis_.path() + "/locked";
    chassis_.insert(19, 1, 206, 0);
    const scripted_daemon programming(chassis_, 19, [&](daemon_side &) {
        const std::uint32_t request[4] = {1, 0, 0, 0x4071000a};
        if (modlock_init() == 0 && modlock_module_lock(129, 27 * 256 + 1, request) == 0)
            std::ofstream(locked) << "yes";
    });
    for (int k = 0; k < 3000 && !std::filesystem::exists(locked); ++k)
        ::usleep(10'000);
    ASSERT_TRUE(std::filesystem::exists(locked));
    EXPECT_EQ(sync({"--json"}), 4);
    EXPECT_EQ(json()["exit_code"], 4) << run_->out();
    EXPECT_EQ(journal(), "");
}

TEST_F(Sync, JsonHoldsThePlanTheProgrammingsAndTheVersions)
{
    EXPECT_EQ(sync({"27", "28", "--json"}), 0) << run_->err();
    const nlohmann::json told = json();
    ASSERT_TRUE(told.is_object()) << run_->out();
    EXPECT_EQ(told["plan"][0]["module"], 28);
    EXPECT_EQ(told["programmed"][0]["module"], 28);
    EXPECT_EQ(told["programmed"][1]["flash_version"], NEW);
    EXPECT_EQ(told["cards"][0]["flashes"][0]["verdict"], "reboot pending");
    EXPECT_EQ(told["all_in_step"], true);
    EXPECT_EQ(told["reboot_pending"], 2);
    EXPECT_EQ(told["exit_code"], 0);
}

TEST_F(Sync, AModuleThatDoesNotExistIsNotFound)
{
    EXPECT_EQ(sync({"27", "7"}), 3);
    EXPECT_TRUE(err_has("no module 7"));
    EXPECT_EQ(journal(), "");
}

TEST_F(Sync, CtrlCWhileItProgramsEndsItAndTellsWhatWasDone)
{
    active_.endless = 28;
    const scripted_daemon active(chassis_, 27, healthy(active_));
    const scripted_daemon standby(chassis_, 28, healthy({}));
    tell_agents();
    biosctl_run run({"--dir", chassis_.path(), "sync", "27", "28", "--json", "--keep-going"});
    ASSERT_TRUE(run.wait_for_error_text("50% writing")) << run.err();
    run.signal(SIGINT);
    EXPECT_EQ(run.exit_code(), 130);
    const auto told = nlohmann::json::parse(run.out(), nullptr, false);
    ASSERT_TRUE(told.is_object()) << run.out();
    EXPECT_EQ(told["programmed"][0]["outcome"], "goes on");
    EXPECT_EQ(told["programmed"][1]["outcome"], "not tried");
}

TEST(SyncReport, IsNoSuccessUnlessTheVersionsWereReadAgain)
{
    const std::vector<programming_result> done{{.ending = programming_ending::verified, .elapsed_s = 1}};
    EXPECT_EQ(report_sync(1, {{.module = 1}}, done, {}).exit, EXIT_FAILED);
    const sync_view in_step{.plan = {{.module = 1, .action = sync_action::in_step}}};
    EXPECT_EQ(report_sync(1, {{.module = 1}}, done, in_step).exit, EXIT_DONE);
    const sync_view out_of_step{.plan = {{.module = 1, .action = sync_action::program_newer}}};
    EXPECT_EQ(report_sync(1, {{.module = 1}}, done, out_of_step).exit, EXIT_FAILED);
}
