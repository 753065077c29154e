// biosctl loader: the requests as literal bytes, how a file's length is found, and the built program against
// daemons that serve from memory.
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "biosctl_daemons.h"
#include "file_search.h"
#include "loader.h"
#include "output_file.h"

namespace
{

using bytes = std::vector<std::uint8_t>;

constexpr std::uint32_t TOO_SHORT = 5;

// A file of a length behind the search. Its content is made only where it is compared.
class searched_file
{
public:
    explicit searched_file(std::uint32_t length, std::uint8_t fill = 0) : content_(length, fill) {}

    file_answer answer(std::uint32_t length)
    {
        asked_.push_back(length);
        if (length > content_.size())
            return {.status = TOO_SHORT};
        return {.content = {content_.begin(), content_.begin() + length}};
    }
    file_search search()
    {
        return find_whole_file([this](std::uint32_t length) { return answer(length); });
    }
    const std::vector<std::uint32_t> &asked() const { return asked_; }

private:
    bytes content_;
    std::vector<std::uint32_t> asked_;
};

bool has(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

class Loader : public ::testing::Test
{
protected:
    Loader()
    {
        card_.journal = chassis_.path() + "/journal";
        card_.loader_file = std::string("\x7f") + "boot$$SRG-LOADER-VERSION: 1.7.3$$" + std::string(3000, '\xee');
    }
    int loader(std::vector<std::string> words, unsigned slot = 27)
    {
        const scripted_daemon daemon(chassis_, slot, healthy(card_));
        words.insert(words.begin(), {"--dir", chassis_.path(), "loader"});
        run_ = std::make_unique<biosctl_run>(words);
        return run_->exit_code();
    }
    std::string out_file() const { return chassis_.path() + "/out.sro"; }
    std::string journal() const { return text_of_file(card_.journal); }

    test_chassis chassis_;
    healthy_card card_;
    std::unique_ptr<biosctl_run> run_;
};

} // namespace

TEST(LoaderInstallRequest, IsTheLiteralBody)
{
    bytes expected(204);
    std::memcpy(expected.data(), "/bootflash/a.img", 16);
    EXPECT_EQ(encode_loader_install_request("/bootflash/a.img", false).body, expected);
    expected[203] = 1;
    EXPECT_EQ(encode_loader_install_request("/bootflash/a.img", true).body, expected);
}

TEST(LoaderInstallRequest, ATooLongPathStaysTerminated)
{
    const bytes body = encode_loader_install_request(std::string(300, 'p'), false).body;
    EXPECT_EQ(body[198], 'p');
    EXPECT_EQ(body[199], 0);
}

TEST(LoaderInstallReport, HasAnExitCodeForEachResult)
{
    const std::pair<std::uint32_t, int> results[] = {{0, 0},          {0x40530001, 1}, {0x40530002, 2},
                                                     {0x40530004, 1}, {0x40530005, 1}, {0x40530006, 1}};
    for (const auto &[result, exit] : results) {
        const outcome told = report_loader_install({.image_path = "/bootflash/a.img"}, 27, result);
        EXPECT_EQ(told.exit, exit) << result;
        EXPECT_EQ(told.json["image"], "/bootflash/a.img");
        EXPECT_EQ(told.json["outcome"], exit == 0 ? "installed" : exit == 2 ? "nothing to do" : "failed");
        EXPECT_TRUE(has(failure_text(told, false), "\n  next: ")) << failure_text(told, false);
    }
}

TEST(FileRequest, IsTheLengthThatIsWanted)
{
    EXPECT_EQ(encode_loader_file_request(loader_file::loader, 0x01020304).body, (bytes{1, 2, 3, 4}));
}

TEST(FileAnswer, OnlyExactlyWhatWasAskedForIsContent)
{
    EXPECT_EQ(decode_file_answer({0, 0, 0, 0, 0, 0, 0, 2, 'a', 'b'}, 2).content, (bytes{'a', 'b'}));
    EXPECT_TRUE(decode_file_answer({0, 0, 0, 0, 0, 0, 0, 0}, 0).has_content());
    EXPECT_EQ(decode_file_answer({0, 0, 0, 5, 0, 0, 0, 0}, 2).status, 5u);
    for (const bytes &payload : {bytes{},
                                 {0, 0, 0, 0, 0, 0, 0},
                                 {0, 0, 0, 0, 0, 0, 0, 2, 'a'},
                                 {0, 0, 0, 0, 0, 0, 0, 2, 'a', 'b', 'c'},
                                 {0, 0, 0, 0, 0, 0, 0, 1, 'a'},
                                 {0, 0, 0, 0, 0xff, 0xff, 0xff, 0xff, 'a', 'b'}})
        EXPECT_FALSE(decode_file_answer(payload, 2).understood) << payload.size();
}

TEST(FileSearch, FindsEveryLength)
{
    for (const std::uint32_t length :
         {0u, 1u, 2u, 511u, 512u, 513u, 70'000u, (1u << 20) - 1, 1u << 20, 3'000'001u}) {
        searched_file file(length, 0xa5);
        const file_search search = file.search();
        EXPECT_EQ(search.end, file_search_end::found);
        EXPECT_EQ(search.answer.content.size(), length);
        EXPECT_EQ(search.beyond_status, TOO_SHORT);
        EXPECT_EQ(search.requests, file.asked().size());
        EXPECT_LE(search.requests, 28u);
        EXPECT_EQ(file.asked().front(), 0u) << "nothing of it first";
    }
}

TEST(FileSearch, AFileOfTheLimitMayBeLonger)
{
    searched_file longest(LOADER_FILE_BYTES_MAX);
    const file_search search = longest.search();
    EXPECT_EQ(search.end, file_search_end::found);
    EXPECT_EQ(search.answer.content.size(), LOADER_FILE_BYTES_MAX);
    EXPECT_EQ(search.beyond_status, 0u);
    EXPECT_LE(search.requests, 28u);
    for (const std::uint32_t length : longest.asked())
        EXPECT_LE(length, LOADER_FILE_BYTES_MAX);
}

TEST(FileSearch, AFileThatIsNotThereIsNotSearched)
{
    unsigned requests = 0;
    const file_search search = find_whole_file([&](std::uint32_t) {
        ++requests;
        return file_answer{.status = 2};
    });
    EXPECT_EQ(search.end, file_search_end::failed);
    EXPECT_EQ(search.answer.status, 2u);
    EXPECT_EQ(requests, 1u);
}

TEST(FileSearch, WhatSaysNothingAboutTheLengthEndsIt)
{
    const file_answer others[] = {{.error = 111}, {.understood = false}, {.status = 1}, {.status = 0x40530006}};
    for (const file_answer &other : others) {
        const file_search search =
            find_whole_file([&](std::uint32_t length) { return length == 0 ? file_answer{} : other; });
        EXPECT_EQ(search.end, file_search_end::failed);
        EXPECT_EQ(search.answer.status, other.status);
        EXPECT_EQ(search.requests, 2u);
    }
}

TEST(FileSearch, AnotherErrorOnTheWayEndsIt)
{
    const file_search search = find_whole_file([&](std::uint32_t length) {
        return length == 0 ? file_answer{} : file_answer{.status = length > 10'000 ? TOO_SHORT : 13u};
    });
    EXPECT_EQ(search.end, file_search_end::failed);
    EXPECT_EQ(search.answer.status, 13u);
}

TEST(FileSearch, AFileThatChangesIsNotedAndNotTaken)
{
    std::uint8_t fill = 0;
    const file_search search = find_whole_file([&](std::uint32_t length) {
        if (length > 100)
            return file_answer{.status = TOO_SHORT};
        return file_answer{.content = bytes(length, ++fill)};
    });
    EXPECT_EQ(search.end, file_search_end::changed);
}

TEST(OutputFile, IsWrittenWholeAndReplacedOnlyOnDemand)
{
    const test_chassis folder;
    const std::string path = folder.path() + "/file";
    EXPECT_EQ(check_output_file(path, false), 0);
    EXPECT_EQ(write_output_file(path, bytes{'a'}, false), 0);
    EXPECT_EQ(text_of_file(path), "a");
    EXPECT_EQ(check_output_file(path, false), EEXIST);
    EXPECT_EQ(write_output_file(path, bytes{'b'}, false), EEXIST);
    EXPECT_EQ(text_of_file(path), "a");
    EXPECT_EQ(check_output_file(path, true), 0);
    EXPECT_EQ(write_output_file(path, bytes{'b'}, true), 0);
    EXPECT_EQ(text_of_file(path), "b");
    unsigned left = 0;
    for (const auto &entry : std::filesystem::directory_iterator(folder.path()))
        left += entry.path().filename().string().starts_with("file.") ? 1U : 0U;
    EXPECT_EQ(left, 0u) << "a temporary file is left";
}

TEST(OutputFile, PlacesThatCannotBeWrittenAreToldBefore)
{
    const test_chassis folder;
    EXPECT_EQ(check_output_file(folder.path(), true), EISDIR);
    EXPECT_EQ(check_output_file(folder.path() + "/", true), EISDIR);
    EXPECT_EQ(check_output_file("", true), EISDIR);
    EXPECT_EQ(check_output_file(folder.path() + "/missing/file", false), ENOENT);
}

TEST_F(Loader, InstallNamesTheImageAndTheFlag)
{
    EXPECT_EQ(loader({"install", "bootflash:system.bin"}), 0) << run_->err();
    EXPECT_TRUE(has(run_->out(), "slot 27: boot loader of /bootflash/system.bin installed")) << run_->out();
    EXPECT_EQ(loader({"install", "/tmp/a.bin", "--remove", "--via", "28"}, 28), 0) << run_->err();
    EXPECT_TRUE(has(run_->out(), "the daemon removes it")) << run_->out();
    EXPECT_EQ(journal(), "install /bootflash/system.bin 0\ninstall /tmp/a.bin 1\n");
}

TEST_F(Loader, InstallOfTheSameVersionIsNothingToDo)
{
    card_.install_result = 0x40530002;
    EXPECT_EQ(loader({"install", "bootflash:system.bin"}), 2);
    EXPECT_TRUE(has(run_->err(), "0x40530002 (loader_same_version)")) << run_->err();
}

TEST_F(Loader, InstallFailsWithCodeMeaningAndNextStep)
{
    card_.install_result = 0x40530004;
    EXPECT_EQ(loader({"install", "bootflash:system.bin", "--json"}), 1);
    const auto told = nlohmann::json::parse(run_->out(), nullptr, false);
    ASSERT_TRUE(told.is_object()) << run_->out();
    EXPECT_EQ(told["result"], "0x40530004");
    EXPECT_EQ(told["name"], "loader_image_not_opened");
    EXPECT_EQ(told["outcome"], "failed");
}

TEST_F(Loader, InstallRefusesPathsThatDoNotFitOrThatTheDaemonRefuses)
{
    const std::vector<std::vector<std::string>> lines{
        {"install"},
        {"install", "system.bin"},
        {"install", "/" + std::string(199, 'p')},
        {"install", "bootflash:a;b"},
        {"install", ""},
        {"get"},
        {"ks", "--output"},
        {"get", "--output", out_file(), "--size", "67108865"},
        {"get", "--output", out_file(), "--size", "-1"},
        {"frob"},
        {},
    };
    for (const auto &line : lines)
        EXPECT_EQ(loader(line), 64) << (line.empty() ? "" : line.back());
    EXPECT_EQ(journal(), "");
    EXPECT_EQ(loader({"install", "/" + std::string(198, 'p')}), 0) << run_->err();
}

TEST_F(Loader, InstallWaitsNoLongerThanToldAndNotForADaemonThatEnds)
{
    const scripted_daemon stuck(chassis_, 27, [](daemon_side &side) { (void)side.receive(4700); });
    biosctl_run waiting({"--dir", chassis_.path(), "loader", "install", "/a", "--timeout", "1"});
    EXPECT_EQ(waiting.exit_code(), 1);
    EXPECT_TRUE(has(waiting.err(), "did not answer in time")) << waiting.err();
    const scripted_daemon ending(chassis_, 28, [](daemon_side &side) {
        (void)side.receive(4700);
        ::_exit(0);
    });
    biosctl_run left_alone({"--dir", chassis_.path(), "loader", "install", "/a", "--via", "28"});
    EXPECT_EQ(left_alone.exit_code(), 1);
    EXPECT_TRUE(has(left_alone.err(), "ended while it was asked")) << left_alone.err();
}

TEST_F(Loader, GetFindsTheLengthAndWritesTheFile)
{
    EXPECT_EQ(loader({"get", "--output", out_file()}), 0) << run_->err();
    EXPECT_EQ(text_of_file(out_file()), card_.loader_file);
    EXPECT_TRUE(has(run_->out(), "version: 1.7.3")) << run_->out();
    EXPECT_TRUE(has(run_->out(), ": " + std::to_string(card_.loader_file.size()) +
                                     " bytes are there, one more is answered with error 5"))
        << run_->out();
}

TEST_F(Loader, GetRefusesToOverwriteBeforeItAsks)
{
    std::ofstream(out_file()) << "precious";
    EXPECT_EQ(loader({"get", "--output", out_file()}), 1);
    EXPECT_TRUE(has(run_->err(), "--force")) << run_->err();
    EXPECT_EQ(text_of_file(out_file()), "precious");
    EXPECT_EQ(journal(), "");
    EXPECT_EQ(loader({"get", "--output", out_file(), "--force"}), 0) << run_->err();
    EXPECT_EQ(text_of_file(out_file()), card_.loader_file);
}

TEST_F(Loader, GetWithASizeAsksOnce)
{
    EXPECT_EQ(loader({"get", "--output", out_file(), "--size", "100", "--json"}), 0) << run_->err();
    EXPECT_EQ(journal(), "file 100\n");
    EXPECT_EQ(text_of_file(out_file()), card_.loader_file.substr(0, 100));
    const auto told = nlohmann::json::parse(run_->out(), nullptr, false);
    ASSERT_TRUE(told.is_object()) << run_->out();
    EXPECT_EQ(told["command"], "loader get");
    EXPECT_EQ(told["bytes"], 100);
    EXPECT_EQ(told["version"], "1.7.3");
    EXPECT_EQ(told["may_be_longer"], true);
}

TEST_F(Loader, AShorterFileThanAskedForIsAFailureAndNothingIsWritten)
{
    EXPECT_EQ(loader({"get", "--output", out_file(), "--size", "1000000"}), 1);
    EXPECT_TRUE(has(run_->err(), "it has fewer than 1000000 bytes")) << run_->err();
    EXPECT_FALSE(std::filesystem::exists(out_file()));
}

TEST_F(Loader, AFileThatIsNotThereIsNotFound)
{
    card_.loader_file.clear();
    EXPECT_EQ(loader({"ks", "--output", out_file()}), 3);
    EXPECT_TRUE(has(run_->err(), "slot 27: /etc/srg-ks.sro not read: error 2")) << run_->err();
    EXPECT_EQ(loader({"get", "--output", out_file() + "/missing/file"}), 3) << "no such folder";
}

TEST_F(Loader, AFileWithoutAVersionIsWrittenAllTheSame)
{
    card_.loader_file = std::string(17, '\0');
    EXPECT_EQ(loader({"ks", "--output", out_file(), "--json"}), 0) << run_->err();
    EXPECT_EQ(text_of_file(out_file()), card_.loader_file);
    EXPECT_TRUE(nlohmann::json::parse(run_->out())["version"].is_null());
}

TEST_F(Loader, APartitionThatCannotBeMountedIsToldWithItsCode)
{
    const scripted_daemon daemon(chassis_, 27, [](daemon_side &side) {
        (void)side.receive(4701);
        side.answer(0, "\x40\x53\x00\x06\0\0\0\0", 8);
    });
    biosctl_run run({"--dir", chassis_.path(), "loader", "get", "--output", out_file()});
    EXPECT_EQ(run.exit_code(), 1);
    EXPECT_TRUE(has(run.err(), "0x40530006 (loader_partition_not_mounted)")) << run.err();
}
