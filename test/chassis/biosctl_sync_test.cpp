// biosctl brings the cards of a chassis in step with the images that ship for them, by real daemons.
#include <nlohmann/json.hpp>

#include "chassis_fixture.h"

namespace
{

constexpr int DONE = 0;
constexpr int FAILED = 1;
constexpr int NOTHING_TO_DO = 2;
constexpr int BUSY = 4;

class BiosctlSync : public chassis_test
{
protected:
    bool holds(unsigned slot, const test_image &wanted) const { return flash_of(slot) == wanted.bytes; }
    unsigned requests(unsigned slot) const { return lines_with(slot, "got MTS_OPC_BIOS_PROGRAMMING_START"); }
};

bool says(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

} // namespace

TEST_F(BiosctlSync, BringsEverySupervisorInStepAndThenHasNothingToDo)
{
    up_with_standby();
    const finished_program planned = biosctl({"sync", "--dry-run"});
    EXPECT_EQ(planned.exit_code, DONE) << planned.errors;
    EXPECT_TRUE(says(planned.output, "program: update")) << planned.output;
    EXPECT_EQ(requests(1), 0U);

    const finished_program done = biosctl({"sync"});
    EXPECT_EQ(done.exit_code, DONE) << done.errors;
    EXPECT_TRUE(says(done.output, "all in step (reboot pending: 2)")) << done.output;
    EXPECT_LT(done.errors.find("module 2: 100% "), done.errors.find("module 1: 0% ")) << done.errors;
    EXPECT_TRUE(holds(1, new_image()));
    EXPECT_TRUE(holds(2, new_image()));

    const finished_program again = biosctl({"sync"});
    EXPECT_EQ(again.exit_code, NOTHING_TO_DO) << again.errors;
    EXPECT_EQ(requests(1), 2U);
    expect_tidy(1);
    expect_tidy(2, {".tmpbios.bin"});
}

TEST_F(BiosctlSync, TakesNoKilledProgrammingForSuccessAndRepairsTheFlashNextTime)
{
    insert({.slot = 1});
    up();
    set_faults(1, "torn program 300");
    const finished_program killed = biosctl({"sync", "--json"});
    EXPECT_EQ(killed.exit_code, FAILED) << killed.output;
    const nlohmann::json told = nlohmann::json::parse(killed.output);
    EXPECT_EQ(told["programmed"][0]["outcome"], "not verified") << killed.output;
    EXPECT_EQ(told["all_in_step"], false);
    EXPECT_TRUE(is_marked(1));

    const finished_program repaired = biosctl({"sync"});
    EXPECT_EQ(repaired.exit_code, DONE) << repaired.errors;
    EXPECT_TRUE(says(repaired.output, "program: not verified")) << repaired.output;
    EXPECT_TRUE(holds(1, new_image()));
    EXPECT_FALSE(is_marked(1));
}

TEST_F(BiosctlSync, GoesDownOnDemandOnly)
{
    insert({.slot = 1, .in_flash = &new_image(), .in_tree = &old_image()});
    up();
    const finished_program refused = biosctl({"sync"});
    EXPECT_EQ(refused.exit_code, FAILED);
    EXPECT_TRUE(says(refused.output, "left: newer than shipped")) << refused.output;
    EXPECT_EQ(requests(1), 0U);
    EXPECT_EQ(biosctl({"sync", "--allow-older"}).exit_code, DONE);
    EXPECT_TRUE(holds(1, old_image()));
}

TEST_F(BiosctlSync, LeavesALineCardThatGetsNoImageAndACardThatDoesNotServe)
{
    insert({.slot = 1, .in_flash = &new_image()});
    insert({.slot = 3, .role = "none", .kind = "linecard"});
    insert({.slot = 4, .role = "none", .serves = false, .kind = "linecard"});
    up();
    const finished_program finished = biosctl({"sync"});
    EXPECT_EQ(finished.exit_code, FAILED);
    EXPECT_TRUE(says(finished.output, "left: no way to bring an image")) << finished.output;
    EXPECT_TRUE(says(finished.output, "left: unreachable")) << finished.output;
    EXPECT_TRUE(says(finished.errors, "not in step: module 3, 4")) << finished.errors;
    EXPECT_EQ(requests(1) + requests(3), 0U);
}

TEST_F(BiosctlSync, StandsBackWhileAProgrammingRuns)
{
    insert({.slot = 1});
    up();
    keep_pauses(1);
    requester other;
    programming running = other.start(1);
    ASSERT_EQ(running.answer, 0U);
    const finished_program busy = biosctl({"sync"});
    EXPECT_EQ(busy.exit_code, BUSY) << busy.errors;
    other.await_end(running);
    expect_programmed(running, 1, new_image());
}
