// What biosctl shows of the versions of real cards, and that it is so: in every state of a flash, and without being
// in the way of a programming.
#include <algorithm>
#include <csignal>
#include <filesystem>

#include <nlohmann/json.hpp>

#include "chassis_fixture.h"

namespace
{

constexpr int DONE = 0;
constexpr int FAILED = 1;
constexpr int NOTHING_TO_DO = 2;
constexpr int BUSY = 4;
constexpr unsigned FLASH_KIB = 512; // takes a few seconds with the time of a real part

using json = nlohmann::json;

// As screens show a version.
std::string shown(const test_image &image)
{
    return image.version.substr(image.version.find_first_not_of(' '));
}

class BiosctlVersions : public chassis_test
{
protected:
    json card(unsigned slot, const std::string &command = "show") const
    {
        const finished_program told = biosctl({"--json", command, std::to_string(slot)});
        const json answer = json::parse(told.output, nullptr, false);
        if (!answer.is_object() || !answer.contains("cards"))
            return {{"error", told.output + told.errors}};
        return answer["cards"][0];
    }
    json flash(unsigned slot) const { return card(slot).value("flashes", json::array({json::object()}))[0]; }
    json last_result(unsigned slot) const
    {
        const finished_program seen = biosctl({"--json", "watch", std::to_string(slot), "--once"});
        return json::parse(seen.output)["cards"][0]["last_result"];
    }
    std::string shipped_file(unsigned slot) const { return card_file(slot, "/vesk/bin/" + shipped_name(90)); }
};

} // namespace

TEST_F(BiosctlVersions, ShowAndSyncLeaveAnImageThatAnOperatorHasPutReady)
{
    up_with_standby();
    const std::string ready = on_bootflash(2, ".tmpbios.bin");
    write_file(ready, "an operator's");
    const std::string active = on_bootflash(1, ".tmpbios.bin");
    write_file(active, "an operator's");
    EXPECT_EQ(biosctl({"show"}).exit_code, DONE);
    EXPECT_EQ(biosctl({"audit"}).exit_code, FAILED);
    EXPECT_EQ(biosctl({"sync", "--dry-run"}).exit_code, DONE);
    EXPECT_EQ(file_content(ready), "an operator's");
    EXPECT_EQ(file_content(active), "an operator's");
    EXPECT_EQ(lines_with(1, "SRC_BIOS_VERSION") + lines_with(2, "SRC_BIOS_VERSION"), 0U);
}

TEST_F(BiosctlVersions, WhileAFlashIsWrittenItHasNoVersionAlsoWithoutALock)
{
    insert({.slot = 1,
            .in_flash = &image("1.2", FLASH_KIB),
            .in_tree = &image("2.5", FLASH_KIB),
            .flash_kib = FLASH_KIB,
            .sector_kib = 64});
    insert({.slot = 2,
            .role = "standby",
            .in_flash = &image("1.2", FLASH_KIB),
            .in_tree = &image("2.5", FLASH_KIB),
            .flash_kib = FLASH_KIB,
            .sector_kib = 64});
    up();
    write_file(flash_file(2, "timing"), "1\n");
    std::filesystem::copy_file(image("2.5", FLASH_KIB).path, on_bootflash(2, ".tmpbios.bin"));
    running_program direct(biosctl_words({"program", "2", "--via", "2"}));
    ASSERT_TRUE(wait_until([&] { return flash(2).value("verdict", "") == "being programmed"; }));
    EXPECT_EQ(biosctl({"sync", "--dry-run"}).exit_code, BUSY);
    unsigned looks = 0;
    for (json seen = flash(2); seen.value("verdict", "") == "being programmed"; seen = flash(2), ++looks)
        EXPECT_TRUE(seen["flash"].is_null()) << seen;
    EXPECT_GT(looks, 0U);
    EXPECT_EQ(direct.wait(std::chrono::seconds(60)).exit_code, DONE);
    const json after = flash(2);
    EXPECT_EQ(after["flash"], shown(image("2.5", FLASH_KIB))) << after;
    EXPECT_EQ(after["running"], shown(image("1.2", FLASH_KIB))) << after;
}

TEST_F(BiosctlVersions, AHalfWrittenFlashIsCalledSoByEveryScreen)
{
    insert({.slot = 1});
    up();
    EXPECT_EQ(flash(1)["flash"], shown(old_image()));
    set_faults(1, "torn program 300");
    EXPECT_EQ(biosctl({"program", "1"}).exit_code, FAILED);
    ASSERT_TRUE(is_marked(1));
    for (const char *command : {"show", "audit"}) {
        const json seen = card(1, command);
        EXPECT_EQ(seen["flashes"][0]["verdict"], "not verified: do not reboot") << seen;
        EXPECT_TRUE(seen["flashes"][0]["flash"].is_null()) << seen;
        EXPECT_EQ(seen["flashes"][0]["running"], shown(old_image())) << seen;
    }
    const finished_program audit = biosctl({"audit"});
    EXPECT_EQ(audit.exit_code, FAILED);
    EXPECT_NE(audit.output.find("program it again: biosctl program SLOT"), std::string::npos) << audit.output;
    EXPECT_EQ(last_result(1)["result"], "0x00000000");
    EXPECT_EQ(last_result(1)["name"], "ended without a result");

    set_faults(1, "");
    EXPECT_EQ(biosctl({"program", "1"}).exit_code, DONE);
    EXPECT_EQ(flash(1)["verdict"], "reboot pending");
    EXPECT_EQ(last_result(1)["name"], "ok");
}

TEST_F(BiosctlVersions, WhatRunsIsWhatTheCardWasStartedFromWhoeverIsStartedAgain)
{
    insert({.slot = 1});
    up();
    ASSERT_EQ(biosctl({"program", "1"}).exit_code, DONE);
    EXPECT_EQ(flash(1)["running"], shown(old_image()));
    const pid_t agent = agent_pid(1);
    ASSERT_EQ(::kill(agent, SIGKILL), 0);
    ASSERT_TRUE(wait_until([&] { return agent_pid(1) != 0 && agent_pid(1) != agent; }));
    ASSERT_TRUE(wait_until([&] { return flash(1).value("running", json()) == shown(old_image()); }));
    const pid_t daemon = daemon_pid(1);
    ASSERT_EQ(::kill(daemon, SIGKILL), 0);
    ASSERT_TRUE(wait_until([&] { return daemon_pid(1) != 0 && daemon_pid(1) != daemon; }));
    EXPECT_EQ(flash(1)["running"], shown(old_image()));
    EXPECT_EQ(flash(1)["flash"], shown(new_image()));
    ASSERT_EQ(chassis({"restart", "1"}).exit_code, DONE);
    EXPECT_EQ(flash(1)["running"], shown(new_image()));
    EXPECT_EQ(flash(1)["verdict"], "in step");
}

TEST_F(BiosctlVersions, ACardWhoseAgentHangsIsUnconfirmedAndLeft)
{
    insert({.slot = 1, .in_flash = &new_image()});
    insert({.slot = 2, .role = "standby"});
    up();
    const pid_t agent = agent_pid(2);
    ASSERT_EQ(::kill(agent, SIGSTOP), 0);
    const finished_program table = biosctl({"show", "2"});
    const finished_program left = biosctl({"sync", "2"});
    ASSERT_EQ(::kill(agent, SIGCONT), 0);
    EXPECT_EQ(table.exit_code, DONE) << table.errors;
    EXPECT_NE(table.output.find(shown(old_image()) + "?"), std::string::npos) << table.output;
    EXPECT_NE(table.output.find("  unconfirmed\n"), std::string::npos) << table.output;
    EXPECT_EQ(left.exit_code, FAILED);
    EXPECT_NE(left.output.find("left: unconfirmed"), std::string::npos) << left.output << left.errors;
    EXPECT_EQ(flash_of(2), old_image().bytes);
}

TEST_F(BiosctlVersions, EachThingThatCanBeWrongWithAnImageIsToldApart)
{
    insert({.slot = 1});
    up();
    const auto reason = [&] { return card(1)["reasons"].dump(); };
    const std::string packed = file_content(shipped_file(1));
    EXPECT_EQ(reason(), "[]");
    write_file(shipped_file(1), packed.substr(0, packed.size() / 2));
    EXPECT_NE(reason().find("the image is cut short or damaged"), std::string::npos) << reason();
    write_file(shipped_file(1), "no image");
    EXPECT_NE(reason().find("the image was not compressed by gzip"), std::string::npos) << reason();
    std::filesystem::remove(shipped_file(1));
    EXPECT_NE(reason().find("there is no such regular file on the card"), std::string::npos) << reason();
    write_file(workspace() + "/blank", std::string(4096, '\xff'));
    ASSERT_EQ(std::system(("gzip -c " + workspace() + "/blank > " + shipped_file(1)).c_str()), 0);
    EXPECT_NE(reason().find("the image holds no version"), std::string::npos) << reason();
}

TEST_F(BiosctlVersions, WithoutTheActiveDaemonTheTableIsThereAndShowFails)
{
    up_with_standby();
    const pid_t daemon = daemon_pid(1);
    ASSERT_EQ(::kill(daemon, SIGSTOP), 0);
    const finished_program seen = biosctl({"show", "--timeout", "1"});
    ASSERT_EQ(::kill(daemon, SIGCONT), 0);
    EXPECT_EQ(seen.exit_code, FAILED);
    EXPECT_NE(seen.errors.find("slot 1: the daemon did not answer in time"), std::string::npos) << seen.errors;
    EXPECT_NE(seen.output.find("update available"), std::string::npos) << seen.output;
}

TEST_F(BiosctlVersions, SourceReadsAnImageInAPlaceOfItsOwnAndNamesWhatIsWrong)
{
    insert({.slot = 1});
    up();
    const std::string ready = on_bootflash(1, ".tmpbios.bin");
    write_file(ready, "an operator's");
    const finished_program tree = biosctl({"source"});
    EXPECT_EQ(tree.exit_code, DONE) << tree.errors;
    EXPECT_NE(tree.output.find(shown(new_image())), std::string::npos) << tree.output;
    make_system_image(on_bootflash(1, "system.img"), 90, image("3.1"));
    const finished_program system = biosctl({"source", "--image", "bootflash:system.img"});
    EXPECT_EQ(system.exit_code, DONE) << system.errors;
    EXPECT_NE(system.output.find(shown(image("3.1"))), std::string::npos) << system.output;
    write_file(on_bootflash(1, "other.img"), "no system image");
    const finished_program other = biosctl({"source", "--image", "/bootflash/other.img"});
    EXPECT_EQ(other.exit_code, FAILED);
    EXPECT_NE(other.errors.find("the file is no system image, or holds no BIOS for this type of card"),
              std::string::npos)
        << other.errors;
    const finished_program missing = biosctl({"source", "--image", "bootflash:missing.img"});
    EXPECT_EQ(missing.exit_code, 3);
    EXPECT_NE(missing.errors.find("there is no such regular file on the card"), std::string::npos)
        << missing.errors;
    EXPECT_EQ(file_content(ready), "an operator's");
    expect_tidy(1);
}

TEST_F(BiosctlVersions, AuditFindsAFlashThatWasChangedSinceItWasProgrammed)
{
    insert({.slot = 1});
    up();
    ASSERT_EQ(biosctl({"program", "1"}).exit_code, DONE);
    ASSERT_EQ(chassis({"restart", "1"}).exit_code, DONE);
    EXPECT_EQ(biosctl({"audit", "1"}).exit_code, DONE);
    std::string contents = flash_of(1);
    contents[contents.size() / 2] = static_cast<char>(contents[contents.size() / 2] ^ 1);
    write_file(flash_file(1, "data"), contents);
    const finished_program audit = biosctl({"audit", "1"});
    EXPECT_EQ(audit.exit_code, FAILED);
    EXPECT_NE(audit.output.find("changed since it was programmed"), std::string::npos) << audit.output;
    EXPECT_EQ(flash(1)["verdict"], "in step") << "show does not read the whole flash";
    ASSERT_EQ(biosctl({"program", "1"}).exit_code, DONE);
    EXPECT_EQ(biosctl({"audit", "1"}).exit_code, DONE);
}

// Another order takes the place of the record of what was verified.
TEST_F(BiosctlVersions, AuditFindsAChangedFlashAlsoBehindAnOrderThatCameToNothing)
{
    insert({.slot = 1});
    up();
    ASSERT_EQ(biosctl({"program", "1"}).exit_code, DONE);
    make_image_tree(slot_file(1, "root"), 90, image("3.0"));
    write_file(flash_file(1, "data"), old_image().bytes);
    keep_pauses(1);
    running_program asked(biosctl_words({"program", "1"}));
    ASSERT_TRUE(wait_until([&] { return child_pid(1) != 0; }));
    EXPECT_EQ(biosctl({"cancel", "1"}).exit_code, DONE);
    EXPECT_EQ(asked.wait().exit_code, FAILED);
    const finished_program audit = biosctl({"audit", "1"});
    EXPECT_NE(audit.output.find("changed since it was programmed"), std::string::npos) << audit.output;
    write_file(flash_file(1, "data"), new_image().bytes);
    const finished_program put_back = biosctl({"audit", "1"});
    EXPECT_EQ(put_back.output.find("changed since it was programmed"), std::string::npos) << put_back.output;
}

TEST_F(BiosctlVersions, AFlashThatWasChangedIntoTheTreesImageIsInOrderAfterTheAdvice)
{
    insert({.slot = 1});
    up();
    make_system_image(on_bootflash(1, "next.img"), 90, image("3.0"));
    ASSERT_EQ(biosctl({"program", "1", "--image", "bootflash:next.img"}).exit_code, DONE);
    write_file(flash_file(1, "data"), new_image().bytes);
    EXPECT_NE(biosctl({"audit", "1"}).output.find("changed since it was programmed"), std::string::npos);
    EXPECT_EQ(biosctl({"program", "1", "--force=older", "--dry-run"}).exit_code, NOTHING_TO_DO);
    const finished_program advised = biosctl({"program", "1", "--force=older"});
    EXPECT_EQ(advised.exit_code, NOTHING_TO_DO) << advised.output << advised.errors;
    EXPECT_NE(advised.errors.find("already in the flash, nothing to do"), std::string::npos) << advised.errors;
    const finished_program audit = biosctl({"audit", "1"});
    EXPECT_EQ(audit.output.find("changed since it was programmed"), std::string::npos) << audit.output;
    EXPECT_EQ(flash_of(1) == new_image().bytes, true);
}

TEST_F(BiosctlVersions, EventsNameWhoHasOrderedWhat)
{
    insert({.slot = 1});
    up();
    ASSERT_EQ(biosctl({"program", "1"}).exit_code, DONE);
    const finished_program told = biosctl({"events", "1", "--json"});
    const json begun = json::parse(told.output.substr(0, told.output.find('\n')));
    EXPECT_EQ(begun["event"], "begun") << begun;
    EXPECT_EQ(begun["version"], shown(new_image())) << begun;
    EXPECT_EQ(begun["old_version"], shown(old_image())) << begun;
    EXPECT_EQ(begun["sha256"].get<std::string>().size(), 64U) << begun;
    EXPECT_FALSE(begun["user"].get<std::string>().empty()) << begun;
    EXPECT_FALSE(begun["host"].get<std::string>().empty()) << begun;
}
