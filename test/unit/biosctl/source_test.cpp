// biosctl source: image names, the report, and the built program against a daemon that follows a script.
#include <cstring>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "biosctl_chassis.h"
#include "modlock.h"
#include "source.h"

namespace
{

using bytes = std::vector<std::uint8_t>;

std::string path_of(const std::string &image)
{
    std::string problem;
    return image_path_of(image, problem).value_or("refused: " + problem);
}

bytes source_answer(const std::vector<std::string> &versions, std::uint8_t slots = 1, std::uint32_t status = 0)
{
    bytes answer(8 + 268 * slots, 0xee); // what is not filled is undefined
    const be32 word = be32::of(status);
    std::memcpy(answer.data(), &word, 4);
    const be32 count = be32::of(static_cast<std::uint32_t>(versions.size()));
    std::memcpy(&answer[4], &count, 4);
    for (std::size_t k = 0; k < versions.size(); ++k) {
        const auto entry = answer.begin() + static_cast<std::ptrdiff_t>(8 + 268 * k);
        std::fill_n(entry, 268, std::uint8_t{0});
        entry[7] = 11;
        std::ranges::copy(std::string("swid-bios"), entry + 8);
        std::ranges::copy("  " + versions[k], entry + 136);
        entry[267] = 19;
    }
    return answer;
}

class Source : public ::testing::Test
{
protected:
    int source(const scripted_daemon::script_function &script, std::vector<std::string> words = {},
               unsigned slot = 27)
    {
        const scripted_daemon daemon(chassis_, slot, script);
        words.insert(words.begin(), {"--dir", chassis_.path(), "source"});
        run_ = std::make_unique<biosctl_run>(words);
        return run_->exit_code();
    }
    static void answer(daemon_side &side, const bytes &reply)
    {
        side.answer(0, reply.data(), static_cast<std::uint32_t>(reply.size()));
    }
    bool err_has(const std::string &text) const { return run_->err().find(text) != std::string::npos; }

    test_chassis chassis_;
    std::unique_ptr<biosctl_run> run_;
};

} // namespace

TEST(SourceProgress, IsAPercentageInThisMachinesOrder)
{
    const auto percent_of = [](std::uint32_t number) {
        std::vector<std::uint8_t> payload(sizeof number);
        std::memcpy(payload.data(), &number, sizeof number);
        return decode_source_progress(MTS_OPC_BIOS_SRC_VERSION_PROGRESS, payload);
    };
    EXPECT_EQ(percent_of(0), 0u);
    EXPECT_EQ(percent_of(100), 100u);
    EXPECT_FALSE(percent_of(101));
    EXPECT_FALSE(decode_source_progress(MTS_OPC_BIOS_SRC_VERSION_PROGRESS, std::vector<std::uint8_t>{1, 0, 0}));
    EXPECT_FALSE(decode_source_progress(MTS_OPC_BIOS_SRC_VERSION_PROGRESS, std::vector<std::uint8_t>{1, 0, 0, 0, 0}));
}

TEST(ImagePath, OfTheBootFlashAndAbsolute)
{
    EXPECT_EQ(path_of("bootflash:a.img"), "/bootflash/a.img");
    EXPECT_EQ(path_of("bootflash:/a.img"), "/bootflash/a.img");
    EXPECT_EQ(path_of("bootflash:///sub/a.img"), "/bootflash/sub/a.img");
    EXPECT_EQ(path_of("/tmp/b+1,x=%@:_-.img"), "/tmp/b+1,x=%@:_-.img");
}

TEST(ImagePath, EverythingElseIsRefused)
{
    for (const char *image : {"", "a.img", "bootflash:", "bootflash:/", "bootflash:///", "tftp:a", "/", "/a/",
                              "./a", "/a b", "/a;b", "/$(x)", "/a\n", "/\xc3\xa4", "bootflash:a'b"})
        EXPECT_TRUE(path_of(image).starts_with("refused: ")) << "'" << image << "'";
}

TEST(ImagePath, AtMostWhatARequestHolds)
{
    EXPECT_EQ(path_of("/" + std::string(254, 'a')).size(), 255u);
    EXPECT_TRUE(path_of("/" + std::string(255, 'a')).starts_with("refused: ")) << "no room for the terminator";
    EXPECT_TRUE(path_of("bootflash:" + std::string(245, 'a')).starts_with("refused: "));
}

TEST_F(Source, TellsEveryVersionOfTheImageTree)
{
    EXPECT_EQ(source([](daemon_side &side) {
                  (void)side.receive(4789);
                  answer(side, source_answer({"v3.5.0(09/17/12)", "v3.6.0(10/01/12)"}, 3));
              }),
              0)
        << run_->err();
    EXPECT_EQ(run_->out(), "FLASH             VERSION                   FORMAT\n"
                           "swid-bios         v3.5.0(09/17/12)          x86n\n"
                           "swid-bios         v3.6.0(10/01/12)          x86n\n");
}

TEST_F(Source, TheRequestNamesTheImageAndWhereNoticesGo)
{
    EXPECT_EQ(source(
                  [](daemon_side &side) {
                      const bytes body = side.receive(4789);
                      bytes expected(268);
                      std::memcpy(&expected[4], "/bootflash/a.img", 16);
                      expected[260] = 1; // the node of tools; the service access point is the transport's choice
                      std::uint32_t sap = 0;
                      std::memcpy(&sap, &body.at(264), 4);
                      std::memcpy(&expected[264], &sap, 4);
                      answer(side,
                             source_answer({"v3.5.0(09/17/12)"}, 1, body == expected && sap >= 0x10000 ? 0 : 1));
                  },
                  {"--image", "bootflash:a.img"}),
              0)
        << run_->err();
}

TEST_F(Source, NoticesBecomeProgressLines)
{
    EXPECT_EQ(source([](daemon_side &side) {
                  const bytes body = side.receive(4789);
                  mts_address_t to{};
                  std::memcpy(&to, &body.at(260), 8);
                  for (const std::uint32_t percent : {33u, 66u, 50u, 101u, 0xffffffffu})
                      side.send_to(to, 4698, &percent, sizeof percent);
                  const std::uint32_t words[2] = {99, 99};
                  side.send_to(to, 4698, words, sizeof words);
                  side.send_to(to, 4795, words, 4);
                  answer(side, source_answer({"v3.5.0(09/17/12)"}));
              }),
              0);
    EXPECT_TRUE(err_has("slot 27: image tree: 66% working")) << run_->err();
    EXPECT_FALSE(err_has("99%")) << run_->err();
    EXPECT_FALSE(err_has("10%")) << run_->err();
}

TEST_F(Source, NoVersionIsAFailureWithItsLikelyReasons)
{
    EXPECT_EQ(source(
                  [](daemon_side &side) {
                      (void)side.receive(4789);
                      answer(side, source_answer({}));
                  },
                  {"--image", "/bootflash/missing.img"}),
              1);
    EXPECT_TRUE(err_has("no BIOS image for this card in /bootflash/missing.img")) << run_->err();
    EXPECT_TRUE(err_has("likely: there is no such file"));
    EXPECT_EQ(run_->out(), "");
}

TEST_F(Source, AnAnswerWithoutPayloadTellsOfNoVersion)
{
    EXPECT_EQ(source([](daemon_side &side) {
                  (void)side.receive(4789);
                  side.answer(0, nullptr, 8);
              }),
              1);
    EXPECT_TRUE(err_has("in its image tree")) << run_->err();
}

TEST_F(Source, AFailureCodeIsToldAndWhatWasReadBeforeItToo)
{
    EXPECT_EQ(source(
                  [](daemon_side &side) {
                      (void)side.receive(4789);
                      answer(side, source_answer({"v3.5.0(09/17/12)"}, 2, 0x40710013));
                  },
                  {"--json"}),
              1);
    const auto told = nlohmann::json::parse(run_->out(), nullptr, false);
    ASSERT_TRUE(told.is_object()) << run_->out();
    EXPECT_EQ(told["status"], "0x40710013");
    EXPECT_EQ(told["versions"][0]["version"], "v3.5.0(09/17/12)");
    EXPECT_EQ(told["exit_code"], 1);
}

TEST_F(Source, HostileAnswersAreNotUnderstood)
{
    bytes wild = source_answer({"v3.5.0(09/17/12)"});
    wild[4] = 0x80;
    bytes many(64 * 268, 0);
    many[7] = 33;
    for (const bytes &reply : {wild, many, bytes(7), bytes(200'000, 0xff), bytes(8 + 267, 1)}) {
        EXPECT_EQ(source([&](daemon_side &side) {
                      (void)side.receive(4789);
                      answer(side, reply);
                  }),
                  1);
        EXPECT_TRUE(err_has("not understood")) << reply.size() << run_->err();
    }
}

TEST_F(Source, AnotherCardIsAskedWithVia)
{
    EXPECT_EQ(source(
                  [](daemon_side &side) {
                      (void)side.receive(4789);
                      side.reject();
                  },
                  {"--via", "5"}, 5),
              1);
    EXPECT_TRUE(err_has("slot 5: the daemon rejected the request")) << run_->err();
}

TEST_F(Source, ADaemonThatNeverAnswersIsNotWaitedForLongerThanAsked)
{
    EXPECT_EQ(source([](daemon_side &side) { (void)side.receive(4789); }, {"--timeout", "1"}), 1);
    EXPECT_TRUE(err_has("did not answer in time")) << run_->err();
}

TEST_F(Source, DuringAProgrammingTheDaemonIsNotAsked)
{
    const scripted_daemon holder(chassis_, 28, [](daemon_side &) {
        const std::uint32_t request[4] = {1, 0, 0, 0x4071000a};
        (void)modlock_init();
        (void)modlock_module_lock(129, 28 * 256 + 1, request);
    });
    ASSERT_TRUE(chassis_.wait_for_lock(28));
    EXPECT_EQ(source([](daemon_side &side) { (void)side.receive(4703); }), 4);
    EXPECT_TRUE(err_has("a programming runs")) << run_->err();
}

TEST_F(Source, ImagesThatAreNoneAreUsageErrors)
{
    for (const char *image : {"a.img", "bootflash:", "/a b"}) {
        EXPECT_EQ(source([](daemon_side &) {}, {"--image", image}), 64) << image;
        EXPECT_EQ(run_->out(), "");
    }
}
