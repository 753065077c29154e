// What has to be programmed to bring the cards in step.
#include <gtest/gtest.h>

#include "sync_plan.h"

namespace
{

constexpr const char *OLD = "v3.1.0(02/11/11)";
constexpr const char *NEW = "v3.5.0(09/17/12)";

sync_card card_of(unsigned module, sync_role role, version_facts facts)
{
    return {.versions = {.module = module,
                         .flashes = {{.label = "swid-bios", .facts = facts, .kind = judge(facts)}},
                         .reasons = {"a reason"}},
            .role = role};
}

// The step for one card alone.
sync_step step_for(const version_facts &facts, sync_role role = sync_role::active, const sync_rules &rules = {})
{
    return plan_sync({card_of(27, role, facts)}, rules).at(0);
}

version_facts versions(const char *flash, const char *source, const char *running = OLD)
{
    return {.flash = flash, .running = running, .source = source};
}

} // namespace

TEST(SyncPlan, GoesByTheVersionsInFlashAndImage)
{
    EXPECT_EQ(step_for(versions(NEW, NEW, NEW)).action, sync_action::in_step);
    EXPECT_EQ(step_for(versions(OLD, NEW, OLD)).action, sync_action::program_newer);
    EXPECT_EQ(step_for(versions(NEW, OLD, NEW)).action, sync_action::left_newer);
    EXPECT_EQ(step_for(versions(OLD, "", OLD)).action, sync_action::left_unknown);
    EXPECT_EQ(step_for(versions(OLD, "v3.5", OLD)).action, sync_action::left_unknown);
}

TEST(SyncPlan, ARebootThatIsPendingIsNoReasonToProgramButAnotherImageIs)
{
    EXPECT_EQ(step_for(versions(NEW, NEW, OLD)).action, sync_action::reboot_pending);
    EXPECT_EQ(step_for(versions(NEW, NEW, "")).action, sync_action::reboot_pending);
    EXPECT_EQ(step_for(versions(NEW, "v3.6.0(01/02/13)", OLD)).action, sync_action::program_newer);
    EXPECT_EQ(step_for(versions(NEW, OLD, OLD)).action, sync_action::left_newer);
}

TEST(SyncPlan, OlderImagesAreProgrammedOnlyWhenTheyMayBe)
{
    const sync_rules older{.allow_older = true};
    EXPECT_EQ(step_for(versions(NEW, OLD, NEW), sync_role::active, older).action, sync_action::program_older);
    EXPECT_EQ(step_for(versions(OLD, NEW, OLD), sync_role::active, older).action, sync_action::program_newer);
    EXPECT_EQ(step_for(versions(NEW, NEW, NEW), sync_role::active, older).action, sync_action::in_step);
}

TEST(SyncPlan, TheDateOfAnImageIsNotCompared)
{
    EXPECT_EQ(step_for(versions(NEW, "v3.5.0(01/01/01)", NEW)).action, sync_action::in_step);
}

TEST(SyncPlan, AFlashWithoutAVersionIsOutOfStep)
{
    for (const char *held : {"", "????", "v3.5"})
        EXPECT_EQ(step_for(versions(held, NEW, OLD)).action, sync_action::program_no_version) << held;
    EXPECT_EQ(step_for(versions("", NEW, "")).action, sync_action::program_no_version);
    EXPECT_EQ(step_for(versions("", "", OLD)).action, sync_action::left_unknown);
}

TEST(SyncPlan, ACardThatToldOfNoFlashIsUnknown)
{
    sync_card card = card_of(27, sync_role::active, versions("", NEW, ""));
    card.versions.flashes[0].label.clear();
    const sync_step step = plan_sync({card}, {}).at(0);
    EXPECT_EQ(step.action, sync_action::left_unknown);
    EXPECT_EQ(step.reasons, std::vector<std::string>{"a reason"});
}

TEST(SyncPlan, WhatIsUnreachableOrBeingProgrammedIsLeft)
{
    EXPECT_EQ(step_for({.reachable = false}).action, sync_action::left_unreachable);
    version_facts busy = versions(OLD, NEW, OLD);
    busy.being_programmed = true;
    EXPECT_EQ(step_for(busy).action, sync_action::left_busy);
}

TEST(SyncPlan, WhatIsNotConfirmedIsLeftAndWhatIsNotVerifiedIsProgrammedAgain)
{
    version_facts facts = versions(OLD, NEW, OLD);
    facts.confirmed = false;
    EXPECT_EQ(step_for(facts).action, sync_action::left_unconfirmed);
    for (const char *held : {"", OLD, NEW}) {
        facts = versions(held, NEW, OLD);
        facts.not_verified = true;
        EXPECT_EQ(step_for(facts).action, sync_action::program_again) << held;
        EXPECT_TRUE(has_to_be_programmed(step_for(facts).action));
    }
}

TEST(SyncPlan, OnlyTheStandbyGetsAnImageOfTheActiveSupervisor)
{
    EXPECT_EQ(step_for(versions(OLD, NEW, OLD), sync_role::standby).action, sync_action::program_newer);
    const sync_step other = step_for(versions(OLD, NEW, OLD), sync_role::other);
    EXPECT_EQ(other.action, sync_action::left_no_way);
    EXPECT_NE(other.reasons.at(0).find("standby supervisor only"), std::string::npos);
    EXPECT_EQ(step_for(versions("", NEW, OLD), sync_role::other).action, sync_action::left_no_way);
    EXPECT_EQ(step_for(versions(NEW, NEW, NEW), sync_role::other).action, sync_action::in_step);
    EXPECT_EQ(step_for(versions(NEW, OLD, NEW), sync_role::other).action, sync_action::left_newer);
}

TEST(SyncPlan, WhereTheActiveSupervisorProgramsOneModuleOnlyOthersAreLeft)
{
    const sync_rules rules{.only_module = 18};
    const auto plan = plan_sync({card_of(17, sync_role::active, versions(OLD, NEW, OLD)),
                                 card_of(18, sync_role::standby, versions(OLD, NEW, OLD))},
                                rules);
    EXPECT_EQ(plan[0].module, 18u);
    EXPECT_EQ(plan[0].action, sync_action::program_newer);
    EXPECT_EQ(plan[1].action, sync_action::left_no_way);
    EXPECT_NE(plan[1].reasons.at(0).find("programs module 18"), std::string::npos);
}

TEST(SyncPlan, IsInTheOrderOfTheWork)
{
    const version_facts same = versions(NEW, NEW, NEW);
    const auto plan = plan_sync({card_of(1, sync_role::active, same), card_of(2, sync_role::other, same),
                                 card_of(3, sync_role::standby, same), card_of(4, sync_role::other, same)},
                                {});
    std::vector<unsigned> modules;
    for (const sync_step &step : plan)
        modules.push_back(step.module);
    EXPECT_EQ(modules, (std::vector<unsigned>{3, 2, 4, 1}));
}

TEST(SyncPlan, OfSeveralFlashesTheMostDecisiveCounts)
{
    sync_card card = card_of(1, sync_role::active, versions(NEW, NEW, NEW));
    card.versions.flashes.push_back({.label = "second", .facts = versions(OLD, NEW, OLD)});
    const sync_step step = plan_sync({card}, {}).at(0);
    EXPECT_EQ(step.action, sync_action::program_newer);
    EXPECT_EQ(step.flash, OLD);
    card.versions.flashes.push_back({.label = "third", .facts = versions(OLD, "", OLD)});
    EXPECT_EQ(plan_sync({card}, {}).at(0).action, sync_action::left_unknown);
}

TEST(SyncPlan, IsATableWithTheReasonsBelow)
{
    const auto plan = plan_sync({card_of(1, sync_role::active, versions(OLD, NEW, OLD)),
                                 card_of(3, sync_role::other, {.reachable = false})},
                                {});
    EXPECT_EQ(text_of(plan_text(plan), {}), "MODULE  FLASH              SHIPPED            ACTION\n"
                                            "3       -                  -                  left: unreachable\n"
                                            "1       v3.1.0(02/11/11)   v3.5.0(09/17/12)   program: update\n"
                                            "module 3: a reason\n");
}

TEST(SyncPlan, ItsTableFitsATerminalWhateverTheActions)
{
    std::vector<sync_step> plan;
    for (int action = 0; action <= static_cast<int>(sync_action::left_busy); ++action)
        plan.push_back({.module = 232,
                        .action = static_cast<sync_action>(action),
                        .flash = "v10.5.0(09/17/12)",
                        .shipped = NEW});
    const std::string text = text_of(plan_text(plan), {.columns = 80});
    std::size_t lines = 0;
    for (std::size_t begin = 0; begin < text.size(); begin = text.find('\n', begin) + 1, ++lines)
        EXPECT_LE(text.find('\n', begin) - begin, 80u) << text.substr(begin, 90);
    EXPECT_EQ(lines, plan.size() + 1);
    for (const sync_step &step : plan)
        EXPECT_NE(text.find(std::string("  ") + action_text(step.action) + "\n"), std::string::npos);
}

TEST(SyncPlan, ColoursWhatIsWellAndWhatIsToBeDone)
{
    const std::string text = text_of(plan_text(std::vector<sync_step>{{.action = sync_action::in_step},
                                                                      {.action = sync_action::program_newer},
                                                                      {.action = sync_action::left_unreachable}}),
                                     {.colours = true});
    EXPECT_NE(text.find("\033[32mnone: in step\033[0m"), std::string::npos) << text;
    EXPECT_NE(text.find("\033[33mprogram: update\033[0m"), std::string::npos) << text;
    EXPECT_NE(text.find("\033[31mleft: unreachable\033[0m"), std::string::npos) << text;
}

TEST(SyncPlan, EveryActionHasItsOwnText)
{
    EXPECT_STREQ(action_text(sync_action::in_step), "none: in step");
    EXPECT_STREQ(action_text(sync_action::program_older), "program: older");
    EXPECT_STREQ(action_text(sync_action::program_no_version), "program: flash has no version");
    EXPECT_STREQ(action_text(sync_action::left_newer), "left: newer than shipped");
    EXPECT_STREQ(action_text(sync_action::left_busy), "left: being programmed");
}

TEST(SyncPlan, TellsProgramsWhatIsToBeDone)
{
    const auto json = plan_json(plan_sync({card_of(1, sync_role::active, versions("", NEW, OLD))}, {}));
    EXPECT_EQ(json[0]["module"], 1);
    EXPECT_EQ(json[0]["program"], true);
    EXPECT_EQ(json[0]["in_step"], false);
    EXPECT_TRUE(json[0]["flash"].is_null());
    EXPECT_EQ(json[0]["shipped"], NEW);
}
