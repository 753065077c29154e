// Advice: each command that a message of biosctl names is run in the situation in which it is named, and does what
// the message says.
#include <algorithm>
#include <csignal>
#include <filesystem>
#include <regex>

#include "chassis_fixture.h"

namespace
{

namespace files = std::filesystem;

class Advice : public chassis_test
{
protected:
    // What "biosctl" and "chassis" are told to do in a text, with this module in the place of its placeholder.
    static std::vector<std::vector<std::string>> commands_in(const std::string &text, unsigned module)
    {
        static const std::regex COMMAND(
            "\\b(biosctl|chassis) (status|log|up|show|source|watch|program|cancel|sync|unlock|"
            "metrics)((?: (?:SLOT|MODULE|[0-9]+|--[a-z]+(?:-[a-z]+)*(?:=[a-z-]+)?))*)");
        std::vector<std::vector<std::string>> commands;
        for (std::sregex_iterator found(text.begin(), text.end(), COMMAND), end; found != end; ++found) {
            std::vector<std::string> words = {(*found)[1], (*found)[2]};
            std::istringstream rest((*found)[3]);
            for (std::string word; rest >> word;)
                words.push_back(word == "SLOT" || word == "MODULE" ? std::to_string(module) : word);
            if (words[1] == "watch")
                words.emplace_back("--once"); // else it goes on until it is left
            commands.push_back(words);
        }
        return commands;
    }
    // Runs what the text advises, in its order. At least the one that is expected has to be there.
    void follow(const finished_program &advised, const std::string &expected, unsigned module = 1) const
    {
        const std::string text = advised.output + advised.errors;
        EXPECT_NE(text.find(expected), std::string::npos) << text;
        const auto commands = commands_in(text, module);
        EXPECT_FALSE(commands.empty()) << text;
        for (const std::vector<std::string> &command : commands) {
            const std::vector<std::string> words(command.begin() + 1, command.end());
            const finished_program done = command[0] == "biosctl" ? biosctl(words) : chassis(words);
            EXPECT_EQ(done.exit_code, 0) << command[1] << " of:\n" << text << done.output << done.errors;
        }
    }
};

} // namespace

TEST_F(Advice, OfAnUpdateAndOfAHalfWrittenFlash)
{
    insert({.slot = 1});
    up();
    follow(biosctl({"show"}), "next: biosctl program SLOT");
    EXPECT_EQ(flash_of(1) == new_image().bytes, true);
    write_file(flash_file(1, "data"), old_image().bytes);
    set_faults(1, "torn program 300");
    const finished_program torn = biosctl({"program", "1"});
    EXPECT_EQ(torn.exit_code, 1);
    follow(biosctl({"show"}), "program it again: biosctl program SLOT");
    EXPECT_EQ(flash_of(1) == new_image().bytes, true);
    EXPECT_FALSE(is_marked(1));
}

TEST_F(Advice, OfAHalfWrittenFlashInAWatch)
{
    insert({.slot = 1});
    up();
    set_faults(1, "torn program 300");
    EXPECT_EQ(biosctl({"program", "1"}).exit_code, 1);
    follow(biosctl({"watch", "--once"}), "program it again: biosctl program SLOT");
    EXPECT_FALSE(is_marked(1));
}

TEST_F(Advice, OfAFlashThatWasChangedToSomethingNewer)
{
    insert({.slot = 1});
    up();
    ASSERT_EQ(biosctl({"program", "1"}).exit_code, 0);
    write_file(flash_file(1, "data"), image("9.9").bytes);
    follow(biosctl({"audit"}), "find who; biosctl program SLOT --force=older");
    EXPECT_EQ(flash_of(1) == new_image().bytes, true);
}

// The image in its tree is newer, but a line card programs the one that lies ready.
TEST_F(Advice, OfACardToWhichNobodyBringsAnImage)
{
    insert({.slot = 1, .in_tree = &old_image()});
    insert({.slot = 3, .role = "none", .kind = "linecard"});
    up();
    const finished_program shown = biosctl({"show"});
    EXPECT_EQ(shown.output.find("next: biosctl program"), std::string::npos) << shown.output;
    EXPECT_NE(shown.output.find("put it there as /bootflash/.tmpbios.bin"), std::string::npos) << shown.output;
    const finished_program refused = biosctl({"program", "3"});
    EXPECT_EQ(refused.exit_code, 3);
    EXPECT_NE(refused.errors.find("next: put the image on the card as /bootflash/.tmpbios.bin"), std::string::npos)
        << refused.errors;
    write_file(on_bootflash(3, ".tmpbios.bin"), new_image().bytes);
    const finished_program done = biosctl({"program", "3"});
    EXPECT_EQ(done.exit_code, 0) << done.errors;
    EXPECT_EQ(flash_of(3) == new_image().bytes, true);
}

TEST_F(Advice, OfRefusedImages)
{
    insert({.slot = 1, .in_flash = &new_image(), .in_tree = &old_image()});
    up();
    follow(biosctl({"program", "1"}), "biosctl program MODULE --force=older");
    EXPECT_EQ(flash_of(1) == old_image().bytes, true);
    test_image small = image("9.9");
    small.bytes.resize(small.bytes.size() / 2);
    small.path = workspace() + "/small";
    write_file(small.path, small.bytes);
    make_image_tree(slot_file(1, "root"), 90, small);
    follow(biosctl({"program", "1"}), "biosctl program MODULE --force=smaller");
    EXPECT_EQ(flash_of(1).starts_with(small.bytes), true);
}

TEST_F(Advice, OfAnImageWithoutAVersion)
{
    insert({.slot = 1});
    up();
    test_image blank = image("9.9");
    std::ranges::fill(blank.bytes, 'b');
    blank.path = workspace() + "/blank";
    write_file(blank.path, blank.bytes);
    make_image_tree(slot_file(1, "root"), 90, blank);
    follow(biosctl({"program", "1"}), "biosctl program MODULE --force=no-version");
    EXPECT_EQ(flash_of(1) == blank.bytes, true);
}

TEST_F(Advice, OfAnImageOfAnotherFamily)
{
    constexpr unsigned IMAGE_KIB = 1024; // the smallest that can be built
    insert({.slot = 1, .in_flash = &image("1.2", IMAGE_KIB), .flash_kib = IMAGE_KIB});
    up();
    test_image other = image("3.5", IMAGE_KIB);
    other.path = workspace() + "/other";
    ASSERT_EQ(run_program({BIOS_IMAGE_PROGRAM, "build", "--output", other.path, "--size", "1", "--version", "3.5",
                           "--date", "09/17/12", "--family", "x86n-o2"})
                  .exit_code,
              0);
    other.bytes = file_content(other.path);
    make_image_tree(slot_file(1, "root"), 90, other);
    follow(biosctl({"program", "1"}), "biosctl program MODULE --force=family");
    EXPECT_EQ(flash_of(1) == other.bytes, true);
}

TEST_F(Advice, OfAnOlderImageInASync)
{
    insert({.slot = 1, .in_flash = &new_image(), .in_tree = &old_image()});
    up();
    follow(biosctl({"sync"}), "biosctl sync --allow-older");
    EXPECT_EQ(flash_of(1) == old_image().bytes, true);
}

TEST_F(Advice, OfALockedModule)
{
    insert({.slot = 1});
    up();
    ASSERT_EQ(biosctl({"lock", "1"}).exit_code, 0);
    follow(biosctl({"program", "1"}), "biosctl unlock 1");
    EXPECT_EQ(biosctl({"program", "1"}).exit_code, 0);
    follow(biosctl({"lock", "1"}), "free it with: biosctl unlock 1");
}

TEST_F(Advice, OfAProgrammingThatGoesOn)
{
    insert({.slot = 1});
    up();
    keep_pauses(1);
    follow(biosctl({"program", "1", "--timeout", "1"}), "biosctl watch 1");
    follow(biosctl({"lock", "1"}), "wait for the end with: biosctl watch 1");
    follow(biosctl({"program", "1"}), "chassis status");
    follow(biosctl({"unlock", "1"}), "biosctl unlock 1 --force");
    EXPECT_TRUE(wait_until([&] { return child_pid(1) == 0; }));
}

TEST_F(Advice, OfADaemonThatHasEnded)
{
    insert({.slot = 1});
    up();
    keep_pauses(1);
    running_program watching(biosctl_words({"program", "1"}));
    ASSERT_TRUE(wait_until([&] { return child_pid(1) != 0; }));
    ASSERT_EQ(::kill(daemon_pid(1), SIGKILL), 0);
    follow(watching.wait(), "chassis status");
}

TEST_F(Advice, OfAProgrammingWithoutAResult)
{
    insert({.slot = 1});
    up();
    keep_pauses(1);
    running_program watching(biosctl_words({"program", "1"}));
    ASSERT_TRUE(wait_until([&] { return child_pid(1) != 0; }));
    ASSERT_EQ(::kill(child_pid(1), SIGKILL), 0);
    follow(watching.wait(), "chassis log 1");
}

TEST_F(Advice, OfAnAgentThatDoesNotAnswer)
{
    insert({.slot = 1});
    insert({.slot = 2, .role = "standby", .in_tree = nullptr});
    up();
    const pid_t agent = agent_pid(2);
    ASSERT_EQ(::kill(agent, SIGSTOP), 0);
    for (const std::vector<std::string> &words :
         {std::vector<std::string>{"program", "2"}, {"lock", "2"}, {"cancel", "2"}})
        follow(biosctl(words), "chassis log 2", 2);
    (void)::kill(agent, SIGCONT);
}

TEST_F(Advice, OfAChassisThatIsDown)
{
    insert({.slot = 1});
    up();
    ASSERT_EQ(chassis({"down"}).exit_code, 0);
    follow(biosctl({"show"}), "chassis up");
    EXPECT_EQ(biosctl({"show"}).exit_code, 0);
}
