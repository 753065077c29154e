// The agent beside each daemon: it is there, small and idle, is started again when it dies, and whoever asks
// meanwhile is told the truth.
#include <csignal>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "bios_opcodes.h"
#include "bios_results.h"
#include "chassis_fixture.h"
#include "process_holdings.h"
#include "version_messages.h"
#include "wait_until.h"

namespace
{

namespace files = std::filesystem;
using namespace std::chrono_literals;

constexpr int DONE = 0;
constexpr int FAILED = 1;
constexpr int NOT_IN_STEP = 2;
constexpr int NOT_FOUND = 3;

class Agent : public chassis_test
{
protected:
    void SetUp() override { up_with_standby(); }

    bool is_another(unsigned slot, pid_t old) const
    {
        const pid_t now = agent_pid(slot);
        return now != 0 && now != old;
    }
    bool all_agents_answer() const
    {
        const finished_program seen = biosctl({"metrics"});
        return seen.exit_code == DONE &&
               seen.output.find(R"(bios_flash_sectors{slot="1",flash="primary"})") != std::string::npos &&
               seen.output.find(R"(bios_flash_sectors{slot="2",flash="primary"})") != std::string::npos;
    }
    std::set<std::string> endpoints() const
    {
        std::set<std::string> names;
        for (const auto &entry : files::directory_iterator(chassis_directory() + "/mts"))
            names.insert(entry.path().filename());
        return names;
    }
};

} // namespace

TEST_F(Agent, IsSmallAndIdle)
{
    ASSERT_NE(agent_pid(1), 0);
    ASSERT_EQ(biosctl({"watch", "--once"}).exit_code, DONE);
    const process_holdings before = holdings_of(agent_pid(1));
    std::this_thread::sleep_for(2s);
    const process_holdings after = holdings_of(agent_pid(1));
    EXPECT_EQ(after.processor_s, before.processor_s);
    EXPECT_LT(after.resident_kib, 4096U) << after;
}

TEST_F(Agent, IsStartedAgainWhenItDiesAndTheDaemonStays)
{
    const pid_t daemon = daemon_pid(1);
    for (unsigned round = 0; round < 3; ++round) {
        const pid_t agent = agent_pid(1);
        ASSERT_EQ(::kill(agent, SIGKILL), 0);
        ASSERT_TRUE(wait_until([&] { return is_another(1, agent); }));
        EXPECT_TRUE(wait_until([&] { return all_agents_answer(); }));
    }
    EXPECT_EQ(daemon_pid(1), daemon);
}

TEST_F(Agent, StaysWhenTheDaemonDies)
{
    if (isolation(1) == "plain")
        GTEST_SKIP() << "what is left of a daemon is found by the root that the agent has, too";
    const pid_t agent = agent_pid(1);
    const pid_t daemon = daemon_pid(1);
    ASSERT_EQ(::kill(daemon, SIGKILL), 0);
    ASSERT_TRUE(wait_until([&] {
        return biosctl({"watch", "--once", "1"}).output.find("no daemon") != std::string::npos;
    }));
    ASSERT_TRUE(wait_until([&] { return daemon_pid(1) != 0 && daemon_pid(1) != daemon; }));
    EXPECT_EQ(agent_pid(1), agent);
}

// Without agents there are no module locks, and without those no programming begins; one that has begun ends.
TEST_F(Agent, IsNotNeededForQueriesNorByAProgrammingThatRuns)
{
    requester programmer;
    programming begun = programmer.start(1);
    ASSERT_EQ(begun.answer, 0U);
    const pid_t agents[] = {agent_pid(1), agent_pid(2)};
    for (const pid_t agent : agents)
        ASSERT_EQ(::kill(agent, SIGSTOP), 0);
    requester asking;
    EXPECT_EQ(asking.ask(1, MTS_OPC_BIOS_GET_MOD_BIOS_VERSION, module_version_request(2)).error, 0);
    programmer.await_end(begun);
    expect_programmed(begun, 1, new_image());

    EXPECT_EQ(program(1).answer, BIOS_ERR_BUSY);
    EXPECT_EQ(asking.ask(1, MTS_OPC_BIOS_GET_MOD_BIOS_VERSION, module_version_request(2)).error, 0);
    for (const pid_t agent : agents)
        ASSERT_EQ(::kill(agent, SIGCONT), 0);
    EXPECT_TRUE(wait_until([&] { return all_agents_answer(); }));
    expect_next_succeeds();
}

TEST_F(Agent, ThatHangsLeavesItsCardUnconfirmedAndTheOthersAsTheyAre)
{
    const pid_t hung = agent_pid(1);
    ASSERT_EQ(::kill(hung, SIGSTOP), 0);
    const auto start = std::chrono::steady_clock::now();
    const finished_program seen = biosctl({"watch", "--once"});
    const finished_program counted = biosctl({"metrics"});
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    ASSERT_EQ(::kill(hung, SIGCONT), 0);
    EXPECT_EQ(seen.exit_code, DONE) << seen.errors;
    EXPECT_NE(seen.output.find("1     active   unconfirmed"), std::string::npos) << seen.output;
    EXPECT_NE(seen.output.find("2     standby  idle"), std::string::npos) << seen.output;
    EXPECT_NE(counted.output.find(R"(bios_card_up{slot="1"} 1)"), std::string::npos) << counted.output;
    EXPECT_EQ(counted.output.find(R"(bios_flash_marked{slot="1")"), std::string::npos) << counted.output;
    EXPECT_NE(counted.output.find(R"(bios_flash_marked{slot="2")"), std::string::npos) << counted.output;
}

TEST_F(Agent, EndsWithTheChassis)
{
    ASSERT_EQ(chassis({"down"}).exit_code, DONE);
    EXPECT_EQ(agent_pid(1), 0);
    EXPECT_EQ(agent_pid(2), 0);
    const finished_program asked = biosctl({"show"});
    EXPECT_EQ(asked.exit_code, FAILED);
    EXPECT_NE(asked.errors.find("no agent of a card of the chassis in '" + chassis_directory() + "' answers"),
              std::string::npos)
        << asked.errors;
}

// Whatever is asked when an agent dies: a true answer or a true error, in time, and nothing is left behind.
TEST_F(Agent, KilledAtAnyTimeEndsInATrueAnswerOrATrueError)
{
    const unsigned seed = std::random_device()();
    std::cout << "seed " << seed << '\n';
    std::mt19937 random(seed);
    const std::vector<std::vector<std::string>> asked = {{"show"},    {"watch", "--once"}, {"events"},
                                                         {"metrics"}, {"lock", "2"},       {"program", "1"}};
    unsigned killed = 0;
    for (unsigned round = 0; round < 100; ++round) {
        const std::vector<std::string> &words = asked[round % asked.size()];
        const unsigned slot = 1 + random() % 2;
        ASSERT_TRUE(wait_until([&] { return agent_pid(1) != 0 && agent_pid(2) != 0; }));
        running_program run(biosctl_words(words));
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 40'000));
        // On a slow machine the one that was there may have been the last one, which was dying still.
        const pid_t agent = agent_pid(slot);
        killed += agent != 0 && ::kill(agent, SIGKILL) == 0 ? 1 : 0;
        const finished_program done = run.wait(60s);
        ASSERT_TRUE(done.exit_code == DONE || done.exit_code == FAILED || done.exit_code == NOT_IN_STEP ||
                    done.exit_code == NOT_FOUND)
            << words.front() << ": " << done.exit_code << done.errors;
        EXPECT_TRUE(words.front() != "program" || done.exit_code != DONE || flash_of(1) == new_image().bytes);
        EXPECT_TRUE((done.exit_code != FAILED && done.exit_code != NOT_FOUND) || !done.errors.empty())
            << words.front();
        if (words.front() == "lock")
            (void)biosctl({"unlock", "2"});
    }
    EXPECT_GE(killed, 80U);
    EXPECT_TRUE(wait_until([&] { return all_agents_answer(); }));
    (void)biosctl({"unlock", "2"}); // the last lock may have been taken after all
    EXPECT_EQ(biosctl({"unlock", "2"}).exit_code, 2);
    expect_next_succeeds();
    // Two daemons with theirs for locks, two agents, and this test's.
    ASSERT_TRUE(wait_until([&] { return endpoints().size() <= 7; })) << endpoints().size();
}

TEST_F(Agent, IsAskedInTheChassisThatIsNamedAndInNoOther)
{
    // The folder has a chassis.d, which is what is taken when nothing is named.
    const std::string folder = workspace() + "/here";
    files::create_directory(folder);
    files::create_directory_symlink(chassis_directory(), folder + "/chassis.d");
    const std::string nowhere = workspace() + "/nowhere";
    const finished_program wrong = run_program(
        {"env", "CHASSIS_DIR=" + nowhere, "sh", "-c", "cd '" + folder + "' && '" BIOSCTL_PROGRAM "' watch --once"});
    EXPECT_EQ(wrong.exit_code, NOT_FOUND);
    EXPECT_NE(wrong.errors.find("there is no chassis in '" + nowhere + "'"), std::string::npos) << wrong.errors;
    for (const std::string &setting : {"CHASSIS_DIR=" + chassis_directory(), std::string("UNRELATED=1")}) {
        const finished_program right =
            run_program({"env", setting, "sh", "-c", "cd '" + folder + "' && '" BIOSCTL_PROGRAM "' watch --once"});
        EXPECT_EQ(right.exit_code, DONE) << setting << ": " << right.errors;
    }
}
