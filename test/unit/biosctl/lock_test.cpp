// biosctl lock and unlock against the agents of a chassis and a daemon that follows a script.
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "biosctl_chassis.h"
#include "lock.h"
#include "lock_messages.h"
#include "modlock.h"

namespace
{

// Answers with the request's words and a result; a body that is not the expected one makes the result EINVAL.
void answer_lock(daemon_side &side, const std::vector<std::uint8_t> &body,
                 const std::vector<std::uint8_t> &expected, std::uint32_t result)
{
    std::uint8_t reply[12] = {};
    std::memcpy(reply, body.data(), std::min<std::size_t>(body.size(), 8));
    const be32 word = be32::of(body == expected ? result : 0x80000000 | EINVAL);
    std::memcpy(reply + 8, &word, sizeof word);
    side.answer(0, reply, sizeof reply);
}

void hold(unsigned node, std::uint32_t reason)
{
    const std::uint32_t request[4] = {1, 0, 0, reason};
    (void)modlock_init();
    while (modlock_module_lock(129, node, request) != 0) // the other one may be trying it just now
        (void)::usleep(5'000);
}

class Lock : public ::testing::Test
{
protected:
    int run(std::vector<std::string> words)
    {
        words.insert(words.begin(), {"--dir", chassis_.path()});
        run_ = std::make_unique<biosctl_run>(words);
        return run_->exit_code();
    }
    bool err_has(const std::string &text) const { return run_->err().find(text) != std::string::npos; }
    bool out_has(const std::string &text) const { return run_->out().find(text) != std::string::npos; }

    // The daemon of slot 27 takes a lock as soon as it can.
    void hold_in_background(unsigned node, std::uint32_t reason)
    {
        daemon_ = std::make_unique<scripted_daemon>(chassis_, 27, [=](daemon_side &) { hold(node, reason); });
    }
    // Likewise module 5's, which it frees at the request.
    void hold_until_asked(std::uint32_t reason)
    {
        daemon_ = std::make_unique<scripted_daemon>(chassis_, 27, [=](daemon_side &side) {
            hold(5 * 256 + 2, reason);
            const std::vector<std::uint8_t> body = side.receive(4703);
            (void)modlock_module_unlock(129, 5 * 256 + 2);
            answer_lock(side, body, {0, 0, 0, 3, 0, 0, 5, 2}, 0);
        });
    }
    static std::string content_when_there(const std::string &file)
    {
        for (int k = 0; k < 3000 && !std::filesystem::exists(file); ++k)
            (void)::usleep(10'000);
        std::string text;
        std::getline(std::ifstream(file), text);
        return text;
    }

    test_chassis chassis_;
    std::unique_ptr<scripted_daemon> daemon_;
    std::unique_ptr<biosctl_run> run_;
};

} // namespace

TEST(LockMessages, TheRequestIsTheLiteralBody)
{
    EXPECT_EQ(encode_lock_request(BIOS_MODULE_LOCK_TAKE, 0x502).body,
              (std::vector<std::uint8_t>{0, 0, 0, 2, 0, 0, 5, 2}));
    EXPECT_EQ(encode_lock_request(BIOS_MODULE_LOCK_RELEASE, 0x1b01).body,
              (std::vector<std::uint8_t>{0, 0, 0, 3, 0, 0, 0x1b, 1}));
}

TEST(LockMessages, OnlyAnAnswerToTheSameRequestHasAResult)
{
    const auto result_of = [](std::uint32_t status, const std::vector<std::uint8_t> &payload) {
        return decode_lock_answer({.answered = true, .status = status, .payload = payload}, BIOS_MODULE_LOCK_TAKE,
                                  0x502);
    };
    EXPECT_EQ(result_of(0, {0, 0, 0, 2, 0, 0, 5, 2, 0x80, 0, 0, 16}), 0x80000010u);
    EXPECT_FALSE(result_of(1, {0, 0, 0, 2, 0, 0, 5, 2, 0, 0, 0, 0}));
    EXPECT_FALSE(result_of(0, {0, 0, 0, 3, 0, 0, 5, 2, 0, 0, 0, 0}));
    EXPECT_FALSE(result_of(0, {0, 0, 0, 2, 0, 0, 5, 1, 0, 0, 0, 0}));
    EXPECT_FALSE(result_of(0, {0, 0, 0, 2, 0, 0, 5, 2, 0, 0, 0}));
}

TEST_F(Lock, IsKeptByTheModulesAgentForTheOperator)
{
    EXPECT_EQ(run({"lock", "5", "--timeout", "60"}), 0) << run_->err();
    EXPECT_TRUE(out_has("module 5: locked for you until 2")) << run_->out();
    EXPECT_TRUE(out_has("biosctl unlock 5"));
    std::ifstream file(chassis_.path() + "/slots/5/locks/operators");
    std::string line;
    ASSERT_TRUE(std::getline(file, line));
    EXPECT_TRUE(line.starts_with("502 ")) << line;

    EXPECT_EQ(run({"lock", "5"}), 0) << "the own one begins anew";
    EXPECT_EQ(run({"unlock", "5"}), 0) << run_->err();
    EXPECT_TRUE(out_has("module 5: not locked any more")) << run_->out();
    EXPECT_EQ(run({"unlock", "5"}), 2);
}

TEST_F(Lock, HoldsOffEveryProcess)
{
    ASSERT_EQ(run({"lock", "5"}), 0) << run_->err();
    const std::string seen = chassis_.path() + "/seen";
    const scripted_daemon daemon(chassis_, 27, [&](daemon_side &) {
        const std::uint32_t request[4] = {1, 0, 0, 0x4071000a};
        (void)modlock_init();
        std::ofstream(seen + ".new") << (modlock_module_lock(129, 5 * 256 + 2, request) == 0 ? 0 : errno);
        std::filesystem::rename(seen + ".new", seen);
    });
    EXPECT_EQ(content_when_there(seen), std::to_string(EBUSY));
}

TEST_F(Lock, EndsByItself)
{
    ASSERT_EQ(run({"lock", "5", "--timeout", "1"}), 0) << run_->err();
    hold_in_background(5 * 256 + 2, 0x4071000b); // waits until it is free
    EXPECT_TRUE(chassis_.wait_for_lock(5));
}

TEST_F(Lock, OfAnotherOperatorIsFreedByForceOnly)
{
    std::filesystem::create_directories(chassis_.path() + "/slots/5/locks");
    std::ofstream(chassis_.path() + "/slots/5/locks/operators") << "502 1790000000 9990000000 ann far.away\n";
    EXPECT_EQ(run({"lock", "5"}), 4);
    EXPECT_TRUE(err_has("held for ann@far.away since 2026-09-21T14:13:20Z until 2286-")) << run_->err();
    EXPECT_EQ(run({"unlock", "5"}), 4);
    EXPECT_TRUE(err_has("biosctl unlock 5 --force")) << run_->err();
    EXPECT_EQ(run({"unlock", "5", "--json"}), 4);
    const auto answer = nlohmann::json::parse(run_->out(), nullptr, false);
    ASSERT_TRUE(answer.is_object()) << run_->out();
    EXPECT_EQ(answer["name"], "lock_held");
    EXPECT_EQ(answer["holder"]["user"], "ann");
    EXPECT_EQ(answer["holder"]["host"], "far.away");
    EXPECT_EQ(run({"unlock", "5", "--force"}), 0) << run_->err();
    EXPECT_EQ(run({"unlock", "5"}), 2);
}

TEST_F(Lock, RefusesAModuleThatIsBeingProgrammed)
{
    hold_in_background(5 * 256 + 2, 0x4071000a);
    ASSERT_TRUE(chassis_.wait_for_lock(5));
    EXPECT_EQ(run({"lock", "5"}), 4);
    EXPECT_TRUE(err_has("held by slot 27")) << run_->err();
    EXPECT_TRUE(err_has("it is being programmed; wait for the end with: biosctl watch 5")) << run_->err();
}

TEST_F(Lock, OfAProgrammingIsFreedByForceOnly)
{
    hold_until_asked(0x4071000a);
    ASSERT_TRUE(chassis_.wait_for_lock(5));
    EXPECT_EQ(run({"unlock", "5"}), 4);
    EXPECT_TRUE(err_has("for a programming")) << run_->err();
    EXPECT_TRUE(err_has("--force")) << run_->err();
    EXPECT_EQ(run({"unlock", "5", "--force"}), 0) << run_->err();
    EXPECT_TRUE(out_has("a programming that is still running goes on without the lock")) << run_->out();
}

TEST_F(Lock, ThatADaemonDoesNotFreeIsNotCalledFree)
{
    const scripted_daemon daemon(chassis_, 27, [](daemon_side &side) {
        hold(5 * 256 + 2, 0x4071000a);
        answer_lock(side, side.receive(4703), {0, 0, 0, 3, 0, 0, 5, 2}, 0);
    });
    ASSERT_TRUE(chassis_.wait_for_lock(5));
    EXPECT_EQ(run({"unlock", "5", "--force"}), 4);
    EXPECT_TRUE(err_has("held by slot 27")) << run_->err();
}

TEST_F(Lock, ForAPeerIsFreedForEverybody)
{
    hold_until_asked(0x4071000b);
    ASSERT_TRUE(chassis_.wait_for_lock(5));
    EXPECT_EQ(run({"unlock", "5"}), 0) << run_->err();
}

TEST_F(Lock, AnAnswerThatIsForSomethingElseIsNotUnderstood)
{
    const scripted_daemon daemon(chassis_, 27, [](daemon_side &side) {
        hold(5 * 256 + 2, 0x4071000b);
        (void)side.receive(4703);
        side.answer(0, "\0\0\0\3\0\0\6\2\0\0\0\0", 12);
    });
    ASSERT_TRUE(chassis_.wait_for_lock(5));
    EXPECT_EQ(run({"unlock", "5"}), 1);
    EXPECT_TRUE(err_has("not understood")) << run_->err();
}

TEST_F(Lock, WithoutTheModulesAgentIsKeptByTheActiveSupervisors)
{
    chassis_.end_agent(5);
    EXPECT_EQ(run({"lock", "5"}), 0) << run_->err();
    EXPECT_TRUE(std::filesystem::exists(chassis_.path() + "/slots/27/locks/operators"));
    EXPECT_EQ(run({"unlock", "5"}), 0) << run_->err();
    for (const unsigned slot : {27U, 28U})
        chassis_.end_agent(slot);
    EXPECT_EQ(run({"lock", "27"}), 1);
    EXPECT_TRUE(err_has("no agent")) << run_->err();
}

TEST(LockReport, AnswersBecomeExitCodes)
{
    const auto exit_of_lock = [](std::uint32_t status) {
        return report_lock({.module = 5}, {.status = status}, std::nullopt).exit;
    };
    EXPECT_EQ(exit_of_lock(0), 0);
    EXPECT_EQ(exit_of_lock(0x40720004), 4);
    EXPECT_EQ(exit_of_lock(0x40720008), 4);
    EXPECT_EQ(exit_of_lock(0x40720012), 1);
    EXPECT_EQ(report_lock({.module = 5}, {}, std::nullopt).exit, 1);
    const auto exit_of_unlock = [](std::uint32_t status) {
        return report_unlock({.module = 5}, {.status = status}, std::nullopt).exit;
    };
    EXPECT_EQ(exit_of_unlock(0), 0);
    EXPECT_EQ(exit_of_unlock(0x40720004), 4);
    EXPECT_EQ(exit_of_unlock(0x40720005), 2);
    EXPECT_EQ(exit_of_unlock(0x40720003), 1);
}
