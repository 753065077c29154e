// biosctl programs the supervisors of a chassis one after the other, by real daemons.
#include <nlohmann/json.hpp>

#include "chassis_fixture.h"

namespace
{

constexpr int DONE = 0;
constexpr int FAILED = 1;

class BiosctlProgramAll : public chassis_test
{
protected:
    void insert_supervisors(unsigned active, unsigned standby, unsigned card_id)
    {
        insert({.slot = active, .card_id = card_id});
        insert({.slot = standby, .role = "standby", .card_id = card_id});
        up();
    }
    bool holds(unsigned slot, const test_image &wanted) const { return flash_of(slot) == wanted.bytes; }
};

bool says(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

} // namespace

TEST_F(BiosctlProgramAll, BringsTheImageToTheStandbyAndThenToTheActiveSupervisor)
{
    insert_supervisors(1, 2, 90);
    const finished_program finished = biosctl({"program", "all"});
    EXPECT_EQ(finished.exit_code, DONE) << finished.errors;
    EXPECT_TRUE(holds(1, new_image()));
    EXPECT_TRUE(holds(2, new_image()));
    EXPECT_LT(finished.errors.find("module 2: 100% "), finished.errors.find("module 1: 0% ")) << finished.errors;
    EXPECT_TRUE(says(finished.output, "all programmed and verified")) << finished.output;
    EXPECT_EQ(lines_with(1, "got MTS_OPC_BIOS_PROGRAMMING_START"), 2U);
    expect_tidy(1);
    expect_tidy(2, {".tmpbios.bin"});
}

TEST_F(BiosctlProgramAll, StopsAtAFailureUnlessToldToGoOn)
{
    insert_supervisors(1, 2, 90);
    protect(2, "0\n");
    const finished_program stopped = biosctl({"program", "all"});
    EXPECT_EQ(stopped.exit_code, FAILED);
    EXPECT_TRUE(says(stopped.output, "2       failed                    0x40710021")) << stopped.output;
    EXPECT_TRUE(says(stopped.output, "1       not tried")) << stopped.output;
    EXPECT_TRUE(holds(1, old_image()));

    const finished_program went_on = biosctl({"--json", "program", "all", "--keep-going"});
    EXPECT_EQ(went_on.exit_code, FAILED);
    const nlohmann::json told = nlohmann::json::parse(went_on.output);
    EXPECT_EQ(told["modules"][0]["result"], "0x40710021") << went_on.output;
    EXPECT_EQ(told["modules"][1]["verified"], true);
    EXPECT_TRUE(holds(1, new_image()));
    EXPECT_TRUE(holds(2, old_image()));
}

TEST_F(BiosctlProgramAll, ASupervisorThatProgramsModule18OnlyProgramsItOnce)
{
    insert_supervisors(17, 18, 316);
    const finished_program finished = biosctl({"--json", "program", "all"});
    EXPECT_EQ(finished.exit_code, DONE) << finished.output;
    EXPECT_EQ(nlohmann::json::parse(finished.output)["left_out"], nlohmann::json::array({17}));
    EXPECT_TRUE(holds(18, new_image()));
    EXPECT_TRUE(holds(17, old_image()));
    EXPECT_EQ(lines_with(17, "got MTS_OPC_BIOS_PROGRAMMING_START"), 1U);
    EXPECT_EQ(lines_with(18, "got MTS_OPC_BIOS_PROGRAMMING_START"), 1U);
}

// The daemon of slot 17 hands the request on to the module that it names.
TEST_F(BiosctlProgramAll, WhateverModuleIsNamedThereTheRequestNamesModule18)
{
    insert_supervisors(17, 18, 183);
    const finished_program finished = biosctl({"program", "17"});
    EXPECT_EQ(finished.exit_code, DONE) << finished.errors;
    EXPECT_TRUE(says(finished.errors, "slot 17 programs module 18, not 17")) << finished.errors;
    EXPECT_TRUE(holds(18, new_image()));
    EXPECT_TRUE(holds(17, old_image()));
}
