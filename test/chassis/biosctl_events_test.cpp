// What the event log of a flash tells of a whole card, also after its end, and the metrics made of it.
#include <csignal>
#include <filesystem>
#include <sstream>

#include <nlohmann/json.hpp>

#include "chassis_fixture.h"

namespace
{

using nlohmann::json;

class BiosctlEvents : public chassis_test
{
protected:
    void SetUp() override
    {
        insert({.slot = 1});
        up();
    }

    std::vector<json> events() const
    {
        const finished_program told = biosctl({"events", "1", "--json"});
        EXPECT_EQ(told.exit_code, 0) << told.errors;
        std::vector<json> events;
        std::istringstream lines(told.output);
        for (std::string line; std::getline(lines, line);)
            events.push_back(json::parse(line));
        return events;
    }
    // "begun attempt verified ended"
    std::string story() const
    {
        std::string text;
        for (const json &event : events())
            text += (text.empty() ? "" : " ") + event["event"].get<std::string>();
        return text;
    }
    // The sample of slot 1's primary flash; -1 when there is none.
    long metric(const std::string &name, const std::string &more_labels = {}) const
    {
        const std::string sample = name + R"({slot="1",flash="primary")" + more_labels + "} ";
        const std::string text = "\n" + biosctl({"metrics"}).output;
        const std::size_t place = text.find("\n" + sample);
        return place != std::string::npos ? std::stol(text.substr(place + 1 + sample.size())) : -1;
    }
};

} // namespace

TEST_F(BiosctlEvents, SurviveRestartsOfTheCardAndOfTheChassis)
{
    EXPECT_EQ(story(), "");
    ASSERT_EQ(biosctl({"program", "1"}).exit_code, 0);
    const std::vector<json> before = events();
    EXPECT_EQ(story(), "begun attempt verified ended");
    EXPECT_EQ(before[0]["slot"], 1);
    EXPECT_EQ(before[0]["flash"], "primary");
    EXPECT_EQ(before[3]["result"], "0x00000000");
    EXPECT_EQ(before[3]["name"], "ok");
    ASSERT_EQ(chassis({"restart", "1"}).exit_code, 0);
    EXPECT_EQ(events(), before);
    ASSERT_EQ(chassis({"down"}).exit_code, 0);
    ASSERT_EQ(chassis({"up"}).exit_code, 0);
    EXPECT_EQ(events(), before);
    ASSERT_TRUE(program(1).verified());
    EXPECT_EQ(story(), "begun attempt verified ended begun attempt equal ended");
    EXPECT_EQ(events().back()["sequence"], 8);
    EXPECT_EQ(metric("bios_programmings_begun_total"), 2);
    EXPECT_EQ(metric("bios_programmings_ended_total", R"(,code="0x00000000",name="ok")"), 2);
    EXPECT_EQ(metric("bios_programmings_equal_total"), 1);
    EXPECT_EQ(metric("bios_programming_duration_seconds_count"), 2);
}

TEST_F(BiosctlEvents, TellOfEveryAttempt)
{
    keep_pauses(1);
    set_faults(1, "fail erase 1\n");
    ASSERT_EQ(biosctl({"program", "1"}).exit_code, 0);
    EXPECT_EQ(story(), "begun attempt failed attempt verified ended");
    EXPECT_EQ(metric("bios_programming_attempts_failed_total", R"(,code="0x40710009",name="erase_failed")"), 1);
    EXPECT_GE(events().back()["duration_ms"], 5000) << "with the pause between the attempts";
}

TEST_F(BiosctlEvents, TellOfARefusalByTheFlash)
{
    protect(1, "0\n");
    ASSERT_EQ(biosctl({"program", "1"}).exit_code, 1);
    EXPECT_EQ(story(), "begun attempt failed ended");
    EXPECT_EQ(events().back()["name"], "write_protected");
    EXPECT_EQ(metric("bios_flash_marked"), 0);
}

TEST_F(BiosctlEvents, TellOfACutAtTheNextStart)
{
    set_faults(1, "torn program 300");
    ASSERT_EQ(biosctl({"program", "1"}).exit_code, 1);
    EXPECT_EQ(metric("bios_flash_marked"), 1);
    ASSERT_EQ(chassis({"restart", "1"}).exit_code, 0);
    (void)biosctl({"show", "1"});
    EXPECT_EQ(story(), "begun attempt cut_off");
    ASSERT_EQ(biosctl({"program", "1"}).exit_code, 0);
    EXPECT_EQ(story(), "begun attempt cut_off begun attempt verified ended");
    EXPECT_EQ(metric("bios_programmings_cut_off_total"), 1);
    EXPECT_EQ(metric("bios_flash_marked"), 0);
}

TEST_F(BiosctlEvents, AreFollowedWhileTheyHappen)
{
    running_program follower(biosctl_words({"events", "--follow"}));
    ASSERT_TRUE(wait_until([&] { return follower.output().find("TIME") != std::string::npos; }));
    ASSERT_EQ(biosctl({"program", "1"}).exit_code, 0);
    EXPECT_TRUE(wait_until([&] { return follower.output().find("0x00000000 ok\n") != std::string::npos; }));
    follower.signal(SIGINT);
    EXPECT_EQ(follower.wait().exit_code, 0);
}

namespace
{

std::string without_line(const std::string &text, unsigned number)
{
    std::istringstream lines(text);
    std::string rest;
    unsigned at = 0;
    for (std::string line; std::getline(lines, line);) {
        if (++at != number)
            rest += line + "\n";
    }
    return rest;
}

// Two supervisors, of which the second one is programmed.
class EventChainOfCards : public chassis_test
{
protected:
    void SetUp() override
    {
        up_with_standby();
        ASSERT_EQ(biosctl({"program", "2"}).exit_code, 0);
    }
    std::string log_file() const { return flash_file(2, "events"); }
    bool is_known_to_the_supervisor(unsigned sequence) const
    {
        const std::string heads = slot_file(1, "event_heads");
        return std::filesystem::exists(heads) &&
               file_content(heads).find("2 0 " + std::to_string(sequence) + " ") != std::string::npos;
    }
    // What is wrong, as events and audit say it.
    void expect_fault(const std::string &text) const
    {
        const finished_program told = biosctl({"events"});
        EXPECT_EQ(told.exit_code, 1);
        EXPECT_NE(told.errors.find("the event log is not whole"), std::string::npos) << told.errors;
        EXPECT_NE(told.errors.find("log: slot 2, primary flash: " + text), std::string::npos) << told.errors;
        const finished_program audit = biosctl({"audit", "2"});
        EXPECT_EQ(audit.exit_code, 1);
        EXPECT_NE(audit.output.find("slot 2: event log not whole: primary flash: " + text), std::string::npos)
            << audit.output;
    }
};

} // namespace

TEST_F(EventChainOfCards, IsWholeAndALineThatIsTakenOutShows)
{
    const finished_program whole = biosctl({"events"});
    EXPECT_EQ(whole.exit_code, 0) << whole.errors;
    write_file(log_file(), without_line(file_content(log_file()), 2));
    expect_fault("1 line before line 3 is missing");
}

TEST_F(EventChainOfCards, ALineThatIsChangedShows)
{
    std::string text = file_content(log_file());
    const std::size_t place = text.find("\"event\":\"verified\"");
    ASSERT_NE(place, std::string::npos);
    write_file(log_file(), text.replace(place, 18, "\"event\":\"equal\""));
    const finished_program told = biosctl({"events"});
    EXPECT_EQ(told.exit_code, 1) << told.output;
}

TEST_F(EventChainOfCards, ALogThatIsCutAtItsEndShowsByWhatTheOtherSupervisorKnows)
{
    ASSERT_TRUE(wait_until([&] { return is_known_to_the_supervisor(4); }));
    write_file(log_file(), without_line(file_content(log_file()), 4));
    expect_fault("1 line at the end is missing (the agent of slot 1 knows line 4)");
    std::filesystem::remove(log_file());
    expect_fault("4 lines at the end are missing (the agent of slot 1 knows line 4)");
}

TEST_F(EventChainOfCards, OfACardWhoseAgentHangsIsNotTakenForEmpty)
{
    const pid_t agent = agent_pid(2);
    ASSERT_EQ(::kill(agent, SIGSTOP), 0);
    for (const std::vector<std::string> &words : {std::vector<std::string>{"events"}, {"events", "2"}}) {
        const finished_program told = biosctl(words);
        EXPECT_EQ(told.exit_code, 1);
        EXPECT_EQ(told.output.find("no flash was programmed yet"), std::string::npos) << told.output;
        EXPECT_NE(told.errors.find("slot 2: its agent does not answer"), std::string::npos) << told.errors;
    }
    EXPECT_TRUE(
        biosctl({"events", "--json"}).output.starts_with(R"({"slot":2,"fault":"its agent does not answer"})"));
    ASSERT_EQ(::kill(agent, SIGCONT), 0);
    EXPECT_EQ(biosctl({"events"}).exit_code, 0);
}

TEST_F(EventChainOfCards, LinesThatAreNoEventsOfTheFlashAreNamedAndLeftOut)
{
    const std::string before = biosctl({"events", "2"}).output;
    std::string text = file_content(log_file());
    const std::string second =
        text.substr(text.find('\n') + 1, text.find('\n', text.find('\n') + 1) - text.find('\n'));
    std::string foreign = second;
    foreign.replace(foreign.find("primary"), 7, "alternate");
    write_file(log_file(), text + "nothing\n" + second + foreign);
    expect_fault("line 5 of the file is no event");
    expect_fault("event 2 (line 6 of the file) is there twice");
    expect_fault("event 2 (line 7 of the file) is of another flash");
    EXPECT_EQ(biosctl({"events", "2"}).output, before);
    EXPECT_NE(biosctl({"events", "2", "--json"}).output.find("\"fault\":\"line 5 of the file is no event\""),
              std::string::npos);
    EXPECT_NE(biosctl({"audit", "2", "--json"}).output.find("line 5 of the file is no event"), std::string::npos);

    make_image_tree(slot_file(1, "root"), 90, image("3.0"));
    EXPECT_EQ(biosctl({"program", "2"}).exit_code, 0);
    const std::string after = biosctl({"events", "2"}).output;
    EXPECT_TRUE(after.starts_with(before) && after.size() > before.size()) << "the events go on: " << after;
}
