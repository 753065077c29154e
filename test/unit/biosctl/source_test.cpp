// biosctl source: image names, the report, and the built program against agents that follow a script.
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "biosctl_chassis.h"
#include "modlock.h"
#include "source.h"

namespace
{

const std::string DIGEST = "010203" + std::string(58, '0'); // of the image that each scripted agent has

std::string path_of(const std::string &image)
{
    std::string problem;
    return image_path_of(image, problem).value_or("refused: " + problem);
}

class Source : public ::testing::Test
{
protected:
    int source(std::vector<std::string> words = {})
    {
        words.insert(words.begin(), {"--dir", chassis_.path(), "source"});
        run_ = std::make_unique<biosctl_run>(words);
        return run_->exit_code();
    }
    bool err_has(const std::string &text) const { return run_->err().find(text) != std::string::npos; }

    test_chassis chassis_;
    std::unique_ptr<biosctl_run> run_;
};

} // namespace

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
    EXPECT_EQ(path_of("/" + std::string(220, 'a')).size(), 221u);
    EXPECT_TRUE(path_of("/" + std::string(221, 'a')).starts_with("refused: "));
    EXPECT_TRUE(path_of("bootflash:" + std::string(211, 'a')).starts_with("refused: "));
}

TEST_F(Source, TellsVersionSizeAndDigestOfTheImage)
{
    EXPECT_EQ(source(), 0) << run_->err();
    EXPECT_EQ(run_->out(), "VERSION           SIZE   SHA-256\n"
                           "v3.5.0(09/17/12)  4 KiB  " +
                               DIGEST + "\n");
    EXPECT_TRUE(err_has("slot 27: image tree: ")) << run_->err();
}

TEST_F(Source, TellsTheSameToPrograms)
{
    EXPECT_EQ(source({"--image", "bootflash:a.img", "--json"}), 0) << run_->err();
    const auto told = nlohmann::json::parse(run_->out(), nullptr, false);
    ASSERT_TRUE(told.is_object()) << run_->out();
    EXPECT_EQ(told["image"], "/bootflash/a.img");
    EXPECT_EQ(told["version"], "v3.5.0(09/17/12)");
    EXPECT_EQ(told["size_bytes"], 4096);
    EXPECT_EQ(told["sha256"], DIGEST);
    EXPECT_EQ(told["exit_code"], 0);
}

TEST_F(Source, EachCauseIsToldApart)
{
    const struct {
        const char *status;
        int exit;
        const char *text;
    } causes[] = {
        {"40720022", 3, "image tree: there is no such regular file on the card"},
        {"40720024", 1, "image tree: the image was not compressed by gzip"},
        {"40720025", 1, "image tree: the image is cut short or damaged"},
        {"40720027", 1, "image tree: no space left on the card to unpack the image"},
        {"40720028", 1, "image tree: the image is empty"},
        {"40720023", 1, "the file is no system image, or holds no BIOS for this type of card"},
    };
    for (const auto &cause : causes) {
        chassis_.agent_says(27, "no_image", cause.status);
        EXPECT_EQ(source(), cause.exit) << cause.text;
        EXPECT_TRUE(err_has(cause.text)) << run_->err();
        EXPECT_EQ(run_->out(), "");
    }
}

TEST_F(Source, AnImageWithoutAVersionIsAFailureThatTellsTheRest)
{
    chassis_.agent_says(27, "ships", "");
    EXPECT_EQ(source({"--json"}), 1);
    const auto told = nlohmann::json::parse(run_->out(), nullptr, false);
    ASSERT_TRUE(told.is_object()) << run_->out();
    EXPECT_TRUE(told["version"].is_null());
    EXPECT_EQ(told["sha256"], DIGEST);
    EXPECT_NE(told["error"].get<std::string>().find("the image holds no version"), std::string::npos);
}

TEST_F(Source, AnotherCardIsAskedWithVia)
{
    chassis_.agent_says(5, "ships", "v9.9.9(01/01/13)");
    EXPECT_EQ(source({"--via", "5"}), 0) << run_->err();
    EXPECT_NE(run_->out().find("v9.9.9(01/01/13)"), std::string::npos) << run_->out();
    EXPECT_TRUE(err_has("slot 5: image tree: "));
}

TEST_F(Source, AnAgentThatIsGoneIsNamed)
{
    chassis_.end_agent(27);
    EXPECT_EQ(source({"--timeout", "1"}), 1);
    EXPECT_TRUE(err_has("slot 27: image tree: the card's agent does not answer")) << run_->err();
}

TEST_F(Source, DuringAProgrammingTheImageIsReadAllTheSame)
{
    const scripted_daemon holder(chassis_, 28, [](daemon_side &) {
        const std::uint32_t request[4] = {1, 0, 0, 0x4071000a};
        (void)modlock_init();
        (void)modlock_module_lock(129, 28 * 256 + 1, request);
    });
    ASSERT_TRUE(chassis_.wait_for_lock(28));
    EXPECT_EQ(source(), 0) << run_->err();
}

TEST_F(Source, ImagesThatAreNoneAreUsageErrors)
{
    for (const char *image : {"a.img", "bootflash:", "/a b"}) {
        EXPECT_EQ(source({"--image", image}), 64) << image;
        EXPECT_EQ(run_->out(), "");
    }
}
