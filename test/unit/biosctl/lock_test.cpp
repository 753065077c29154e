// biosctl lock and unlock against a daemon that follows a script.
#include <cerrno>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "biosctl_chassis.h"
#include "lock.h"
#include "lock_messages.h"
#include "modlock.h"

namespace
{

class Lock : public ::testing::Test
{
protected:
    int run(const scripted_daemon::script_function &script, std::vector<std::string> words, unsigned slot = 27)
    {
        const scripted_daemon daemon(chassis_, slot, script);
        words.insert(words.begin(), {"--dir", chassis_.path()});
        run_ = std::make_unique<biosctl_run>(words);
        return run_->exit_code();
    }
    bool err_has(const std::string &text) const { return run_->err().find(text) != std::string::npos; }
    bool out_has(const std::string &text) const { return run_->out().find(text) != std::string::npos; }

    test_chassis chassis_;
    std::unique_ptr<biosctl_run> run_;
};

// Answers with the request's words and a result; a body that is not the expected one makes the result EINVAL.
void answer_lock(daemon_side &side, const std::vector<std::uint8_t> &expected, std::uint32_t result)
{
    const std::vector<std::uint8_t> body = side.receive(4703);
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

TEST_F(Lock, AsksForTheModulesNodeAndSaysWhoHoldsIt)
{
    EXPECT_EQ(run(
                  [](daemon_side &side) {
                      hold(5 * 256 + 2, 0x4071000b);
                      answer_lock(side, {0, 0, 0, 2, 0, 0, 5, 2}, 0);
                  },
                  {"lock", "5"}),
              0)
        << run_->err();
    EXPECT_TRUE(out_has("module 5: locked by the daemon of slot 27")) << run_->out();
    EXPECT_TRUE(out_has("held by slot 27")) << run_->out();
}

TEST_F(Lock, ASupervisorsNodeEndsInOne)
{
    EXPECT_EQ(run(
                  [](daemon_side &side) {
                      answer_lock(side, {0, 0, 0, 3, 0, 0, 28, 1}, 0);
                  },
                  {"unlock", "28"}),
              0)
        << run_->err();
}

TEST_F(Lock, ViaNamesTheDaemonAsked)
{
    EXPECT_EQ(run(
                  [](daemon_side &side) {
                      answer_lock(side, {0, 0, 0, 2, 0, 0, 5, 2}, 0);
                  },
                  {"lock", "5", "--via", "28"}, 28),
              0)
        << run_->err();
    EXPECT_TRUE(out_has("slot 28"));
}

TEST_F(Lock, ALockHeldByAnotherIsBusyAndNamesTheHolder)
{
    const scripted_daemon other(chassis_, 28, [](daemon_side &) { hold(5 * 256 + 2, 0x4071000a); });
    EXPECT_EQ(run(
                  [](daemon_side &side) {
                      // Until the other one has it.
                      const std::uint32_t request[4] = {1, 0, 0, 0x4071000b};
                      (void)modlock_init();
                      while (modlock_module_lock(129, 5 * 256 + 2, request) == 0) {
                          (void)modlock_module_unlock(129, 5 * 256 + 2);
                          ::usleep(10'000);
                      }
                      answer_lock(side, {0, 0, 0, 2, 0, 0, 5, 2}, 0x80000000 | EBUSY);
                  },
                  {"lock", "5", "--json"}),
              4);
    const auto answer = nlohmann::json::parse(run_->out(), nullptr, false);
    ASSERT_TRUE(answer.is_object()) << run_->out();
    EXPECT_EQ(answer["name"], "lock_held");
    EXPECT_EQ(answer["holder"]["slot"], 28);
    EXPECT_EQ(answer["holder"]["owner"], 129);
    EXPECT_EQ(answer["holder"]["reason"], "0x4071000a");
    EXPECT_NE(answer["holder"]["since"], "");
}

TEST_F(Lock, FreeingALockTakenForAProgrammingIsPointedOut)
{
    const std::string held = chassis_.path() + "/held";
    const scripted_daemon daemon(chassis_, 27, [&](daemon_side &side) {
        hold(5 * 256 + 2, 0x4071000a);
        std::ofstream(held) << "yes";
        answer_lock(side, {0, 0, 0, 3, 0, 0, 5, 2}, 0);
    });
    for (int k = 0; k < 3000 && !std::filesystem::exists(held); ++k)
        ::usleep(10'000);
    biosctl_run run({"--dir", chassis_.path(), "unlock", "5"});
    EXPECT_EQ(run.exit_code(), 0);
    EXPECT_NE(run.err().find("for a programming"), std::string::npos) << run.err();
}

TEST_F(Lock, AnAnswerThatIsTooShortOrForSomethingElseIsNotUnderstood)
{
    EXPECT_EQ(run(
                  [](daemon_side &side) {
                      (void)side.receive(4703);
                      side.answer(0, "\0\0\0\2\0\0\5\2\0\0\0", 11);
                  },
                  {"lock", "5"}),
              1);
    EXPECT_TRUE(err_has("not understood"));
    EXPECT_EQ(run(
                  [](daemon_side &side) {
                      (void)side.receive(4703);
                      side.answer(0, "\0\0\0\2\0\0\6\2\0\0\0\0", 12);
                  },
                  {"lock", "5"}),
              1);
    EXPECT_TRUE(err_has("not understood"));
}

TEST_F(Lock, ARejectedRequestIsAFailure)
{
    EXPECT_EQ(run(
                  [](daemon_side &side) {
                      (void)side.receive(4703);
                      side.reject();
                  },
                  {"lock", "5"}),
              1);
    EXPECT_TRUE(err_has("rejected"));
}

TEST(LockReport, ResultsBecomeExitCodes)
{
    const lock_options take{BIOS_MODULE_LOCK_TAKE, 5, std::nullopt};
    EXPECT_EQ(report_lock(take, 27, 0).exit, 0);
    EXPECT_EQ(report_lock(take, 27, 0x80000000 | EBUSY).exit, 4);
    EXPECT_EQ(report_lock(take, 27, 0x80000000 | EIO).exit, 1);
    EXPECT_EQ(report_lock(take, 27, 0x80000000).exit, 1);
    const lock_options release{BIOS_MODULE_LOCK_RELEASE, 5, std::nullopt};
    EXPECT_EQ(report_lock(release, 27, 0x80000000 | EPERM).exit, 4);
    EXPECT_EQ(report_lock(release, 27, 0x80000000 | ENOENT).exit, 2);
}
