// Watchers of a real chassis: what they see when they come late, and that they disturb nobody however they leave.
#include <algorithm>
#include <csignal>
#include <filesystem>
#include <sstream>
#include <thread>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "bios_flash.h"
#include "chassis_fixture.h"

namespace
{

using json = nlohmann::json;
using json_lines = std::vector<json>;

constexpr unsigned FLASH_KIB = 512; // takes a few seconds with the time of a real part

constexpr std::size_t SECONDS_BYTES = 19; // of a time, "2026-01-31T23:59:59"

// Whole lines only: a watcher may be writing.
json_lines objects_of(const std::string &output)
{
    std::istringstream lines(output.substr(0, output.rfind('\n') + 1));
    json_lines objects;
    for (std::string line; std::getline(lines, line);)
        objects.push_back(json::parse(line));
    return objects;
}

json card_of(const json &snapshot, unsigned slot)
{
    for (const json &card : snapshot["cards"]) {
        if (card["slot"] == slot)
            return card;
    }
    throw std::runtime_error("slot " + std::to_string(slot) + " is not watched");
}

class BiosctlWatch : public chassis_test
{
protected:
    void SetUp() override
    {
        old_ = &image("1.2", FLASH_KIB);
        new_ = &image("2.5", FLASH_KIB);
        insert({.slot = 1, .in_flash = old_, .in_tree = new_, .flash_kib = FLASH_KIB, .sector_kib = 64});
        insert({.slot = 2,
                .role = "standby",
                .in_flash = old_,
                .in_tree = nullptr,
                .flash_kib = FLASH_KIB,
                .sector_kib = 64});
        up();
    }
    // So that there is something to watch.
    void take_the_time_of_a_real_part(unsigned slot) const { write_file(flash_file(slot, "timing"), "1\n"); }

    std::vector<std::string> watching(const std::vector<std::string> &more = {}) const
    {
        std::vector<std::string> words = {"--json", "watch", "--interval", "0.1"};
        words.insert(words.end(), more.begin(), more.end());
        return biosctl_words(words);
    }
    // By the register: what counts from the next boot on.
    void select_flash(unsigned slot, const std::string &value) const
    {
        write_file(slot_file(slot, "registers/186"), value + "\n");
    }
    // The times of a flash's events of a kind, "2026-01-31T23:59:59.123Z".
    std::vector<std::string> times_of(unsigned slot, const std::string &kind) const
    {
        std::vector<std::string> times;
        for (const json &event : objects_of(biosctl({"--json", "events", std::to_string(slot)}).output)) {
            if (event["event"] == kind)
                times.push_back(event["time"]);
        }
        return times;
    }
    json look() const { return json::parse(biosctl({"--json", "watch", "--once"}).output); }

    const test_image *old_ = nullptr;
    const test_image *new_ = nullptr;
};

// Waits until the watcher has told of something.
template<class Event>
bool sees(const running_program &watcher, Event &&event)
{
    return wait_until([&] {
        const json_lines objects = objects_of(watcher.output());
        return std::any_of(objects.begin(), objects.end(), event);
    });
}

bool has_result(const json &card)
{
    return card["state"] == "idle" && card["last_result"].is_object();
}

} // namespace

TEST_F(BiosctlWatch, NamesADaemonThatWasStopped)
{
    EXPECT_EQ(card_of(look(), 2)["state"], "idle");
    ASSERT_EQ(::kill(daemon_pid(2), SIGSTOP), 0);
    EXPECT_TRUE(wait_until([&] { return card_of(look(), 2)["state"] == "daemon silent"; }));
    EXPECT_EQ(card_of(look(), 1)["state"], "idle") << "one that idles is not silent";
    ASSERT_EQ(::kill(daemon_pid(2), SIGCONT), 0);
    EXPECT_TRUE(wait_until([&] { return card_of(look(), 2)["state"] == "idle"; }));
}

TEST_F(BiosctlWatch, ALateWatcherSeesAForwardedProgrammingToItsEnd)
{
    keep_pauses(2);
    take_the_time_of_a_real_part(2);
    requester asking;
    programming running = asking.start(2);
    ASSERT_EQ(running.answer, 0U) << running;
    ASSERT_TRUE(asking.await_progress(
        running, [](const programming &seen) { return !seen.progress.empty() && seen.progress.back().percent > 5; },
        std::chrono::seconds(60)));
    running_program watcher(watching());
    asking.await_end(running);
    expect_programmed(running, 2, *new_);
    EXPECT_TRUE(sees(watcher, [](const json &seen) { return has_result(card_of(seen, 2)); })) << watcher.output();
    watcher.signal(SIGINT);
    const finished_program left = watcher.wait();
    EXPECT_EQ(left.exit_code, 0) << left.errors;
    EXPECT_EQ(left.errors, "");

    const json_lines seen = objects_of(left.output);
    ASSERT_GE(seen.size(), 5U) << left.output;
    const json &first = seen.front();
    EXPECT_EQ(card_of(first, 1)["state"], "programming another module");
    EXPECT_EQ(card_of(first, 1)["programs_module"], 2);
    EXPECT_EQ(card_of(first, 2)["state"], "being programmed");
    for (const unsigned slot : {1U, 2U}) {
        EXPECT_EQ(card_of(first, slot)["lock"]["slot"], 1) << first;
        EXPECT_EQ(card_of(first, slot)["lock"]["reason"], "0x4071000a");
    }
    unsigned risen = 0;
    int percent = -1;
    for (const json &each : seen) {
        const json progress = card_of(each, 2)["progress"];
        if (!progress.is_object())
            continue;
        EXPECT_GE(progress["percent"], percent) << left.output;
        risen += progress["percent"] > percent ? 1U : 0U;
        percent = progress["percent"];
        EXPECT_EQ(progress["attempt"], 1);
    }
    EXPECT_GE(risen, 4U) << left.output;
    EXPECT_EQ(percent, 100);
    const json last = card_of(seen.back(), 2);
    EXPECT_EQ(last["last_result"]["result"], "0x00000000");
    EXPECT_EQ(last["last_result"]["reported_by_slot"], 1);
    EXPECT_TRUE(last["lock"].is_null() && last["progress"].is_null()) << last;
    EXPECT_EQ(card_of(seen.back(), 1)["state"], "idle");
}

TEST_F(BiosctlWatch, AWatcherAfterTheEndSeesTheLastResultOfEachModule)
{
    protect(1, "0\n");
    EXPECT_EQ(program(1).result, std::optional<std::uint32_t>(BIOS_FLASH_ERR_PROTECTED));
    EXPECT_EQ(program(2).result, std::optional<std::uint32_t>(0));
    const json seen = look();
    EXPECT_EQ(card_of(seen, 1)["last_result"]["name"], "write_protected") << seen;
    EXPECT_EQ(card_of(seen, 2)["last_result"]["result"], "0x00000000") << seen;
    for (const unsigned slot : {1U, 2U})
        EXPECT_EQ(card_of(seen, slot)["state"], "idle") << seen;
    ASSERT_EQ(chassis({"down"}).exit_code, 0);
    ASSERT_EQ(chassis({"up"}).exit_code, 0);
    EXPECT_EQ(card_of(look(), 1)["last_result"]["name"], "write_protected");
}

TEST_F(BiosctlWatch, ProgrammingTheOwnCardWithoutALockIsSeenToo)
{
    take_the_time_of_a_real_part(2);
    write_file(card_file(2, "/bootflash/.tmpbios.bin"), new_->bytes);
    running_program watcher(watching({"2"}));
    const programming seen = program(2, {.via = 2});
    expect_programmed(seen, 2, *new_);
    EXPECT_TRUE(sees(watcher, [](const json &each) {
        const json card = card_of(each, 2);
        return card["state"] == "being programmed" && card["lock"].is_null() && card["progress"].is_object() &&
               card["progress"]["percent"] > 0;
    })) << watcher.output();
}

TEST_F(BiosctlWatch, AKilledProgrammingIsShownAsNotVerified)
{
    set_faults(1, "torn program 300");
    EXPECT_EQ(program(1).result, std::optional<std::uint32_t>(0)) << "a killed child has no exit status";
    const json card = card_of(look(), 1);
    EXPECT_EQ(card["state"], "not verified") << card;
    EXPECT_EQ(card["marked_flashes"], json::array({"primary"}));
    EXPECT_EQ(card["progress"]["goes_on"], false);
    EXPECT_EQ(card["progress"]["phase"], "writing");
    const finished_program table = biosctl({"watch", "--once"});
    EXPECT_NE(table.output.find("not verified: do not reboot"), std::string::npos) << table.output;
    EXPECT_NE(table.output.find("stopped at "), std::string::npos) << table.output;

    expect_programmed(program(1), 1, *new_);
    EXPECT_EQ(card_of(look(), 1)["state"], "idle");
}

// The supervisor hangs while it should tell of the end, and longer than the work on a flash may be unreported.
TEST_F(BiosctlWatch, AVerifiedFlashIsToldSoHoweverLateTheSupervisorTellsIt)
{
    take_the_time_of_a_real_part(2);
    requester asking;
    programming running = asking.start(2);
    ASSERT_EQ(running.answer, 0U) << running;
    ASSERT_TRUE(wait_until([&] { return child_pid(2) != 0; }));
    const pid_t relay = child_pid(1);
    ASSERT_NE(relay, 0);
    ASSERT_EQ(::kill(relay, SIGSTOP), 0);
    ASSERT_EQ(::kill(daemon_pid(1), SIGSTOP), 0);
    EXPECT_TRUE(wait_until([&] { return times_of(2, "ended").size() == 1; }));
    std::this_thread::sleep_for(std::chrono::seconds(45));
    ASSERT_EQ(::kill(relay, SIGCONT), 0);
    ASSERT_EQ(::kill(daemon_pid(1), SIGCONT), 0);
    asking.await_end(running);
    EXPECT_EQ(running.result, std::optional<std::uint32_t>(0)) << running;
    const json card = card_of(look(), 2);
    EXPECT_EQ(card["last_result"]["name"], "ok") << card;
    EXPECT_EQ(card["last_result"]["time"], times_of(2, "ended").at(0).substr(0, SECONDS_BYTES) + "Z");
}

TEST_F(BiosctlWatch, AHalfWrittenAlternateFlashIsNoReasonNotToReboot)
{
    write_file(flash_file(2, "programming", "alternate"), "");
    const json card = card_of(look(), 2);
    EXPECT_EQ(card["state"], "idle") << card;
    EXPECT_EQ(card["marked_flashes"], json::array({"alternate"}));
    const std::string words = "its alternate flash is not verified: it has none to fall back on";
    for (const std::vector<std::string> &screen :
         {std::vector<std::string>{"watch", "--once"}, {"show"}, {"audit"}}) {
        const std::string shown = biosctl(screen).output;
        EXPECT_NE(shown.find(words), std::string::npos) << shown;
        EXPECT_EQ(shown.find("do not reboot"), std::string::npos) << shown;
        EXPECT_EQ(shown.find("program it again"), std::string::npos) << shown;
    }
    std::filesystem::remove(flash_file(2, "programming", "alternate"));
}

TEST_F(BiosctlWatch, AHalfWrittenAlternateFlashIsNeededUntilThePrimaryOneIsVerified)
{
    ASSERT_EQ(chassis({"down"}).exit_code, 0);
    select_flash(2, "0xc00");
    ASSERT_EQ(chassis({"up"}).exit_code, 0);
    select_flash(2, "0x800");
    write_file(flash_file(2, "programming", "alternate"), "");
    EXPECT_EQ(card_of(look(), 2)["state"], "not verified");
    EXPECT_NE(biosctl({"show"}).output.find("not verified: do not reboot"), std::string::npos);
    ASSERT_EQ(biosctl({"program", "2"}).exit_code, 0) << "as it was told";
    EXPECT_EQ(card_of(look(), 2)["state"], "idle");
    ASSERT_EQ(chassis({"down"}).exit_code, 0);
    select_flash(2, "0xc00");
    ASSERT_EQ(chassis({"up"}).exit_code, 0);
    select_flash(2, "0x800");
    EXPECT_EQ(card_of(look(), 2)["state"], "not verified");
    EXPECT_EQ(biosctl({"program", "2"}).exit_code, 2) << "the image is there";
    EXPECT_EQ(card_of(look(), 2)["state"], "idle");
    EXPECT_EQ(biosctl({"show"}).output.find("do not reboot"), std::string::npos);
    std::filesystem::remove(flash_file(2, "programming", "alternate"));
}

TEST_F(BiosctlWatch, LeavingAtAnyTimeDisturbsNothing)
{
    take_the_time_of_a_real_part(2);
    running_program patient(watching());
    requester asking;
    programming running = asking.start(2);
    ASSERT_EQ(running.answer, 0U) << running;
    ASSERT_TRUE(wait_until([&] { return child_pid(2) != 0; }));
    unsigned left = 0;
    while (child_pid(2) != 0) {
        running_program watcher(watching());
        ASSERT_TRUE(wait_until([&] { return !watcher.output().empty(); }));
        const int how = left % 2 == 0 ? SIGKILL : SIGINT;
        watcher.signal(how);
        EXPECT_EQ(watcher.wait().exit_code, how == SIGINT ? 0 : -1);
        // A reader that takes one line and goes: the pipe is closed while the watcher watches.
        const std::string dir = chassis_directory();
        EXPECT_EQ(run_program({"bash", "-o", "pipefail", "-c",
                               std::string(BIOSCTL_PROGRAM) + " --dir " + dir + " watch | head -n 1"})
                      .exit_code,
                  0);
        patient.signal(left % 2 == 0 ? SIGSTOP : SIGCONT);
        ++left;
    }
    patient.signal(SIGCONT);
    EXPECT_GE(left, 2U);
    asking.await_end(running); // this test has not taken its progress messages in time; the flash tells
    EXPECT_EQ(running.result, std::optional<std::uint32_t>(0)) << running;
    EXPECT_EQ(flash_of(2) == new_->bytes, true);
    EXPECT_FALSE(is_marked(2));
    EXPECT_TRUE(sees(patient, [](const json &seen) { return has_result(card_of(seen, 2)); })) << patient.output();
    expect_tidy(1);
    expect_tidy(2, {".tmpbios.bin"});
    patient.signal(SIGTERM);
}

TEST_F(BiosctlWatch, LocksOfOperatorsAreTold)
{
    ASSERT_EQ(biosctl({"lock", "2"}).exit_code, 0);
    const json card = card_of(look(), 2);
    EXPECT_EQ(card["state"], "locked") << card;
    EXPECT_NE(card["lock"].value("locked_for", "").find('@'), std::string::npos) << card;
    EXPECT_EQ(card["lock"]["reason"], "0x4071000b");
    ASSERT_EQ(biosctl({"unlock", "2"}).exit_code, 0);
    EXPECT_EQ(card_of(look(), 2)["state"], "idle");
}
