// veskadd and bios_image: the built programs, on archives that are made here byte by byte.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <sys/resource.h>
#include <vector>

#include "bios_header.h"
#include "image_tool_test.h"

namespace
{

namespace files = std::filesystem;

constexpr std::size_t TAR_BLOCK_BYTES = 512;
constexpr char TAR_FILE = '0';
constexpr char TAR_HARD_LINK = '1';
constexpr char TAR_SYMBOLIC_LINK = '2';
constexpr char TAR_CHARACTER_DEVICE = '3';
constexpr char TAR_FOLDER = '5';
constexpr char TAR_PIPE = '6';
constexpr const char *MEMBER = "/vesk/bin/bios.gz";

struct tar_member {
    std::string name;
    std::string contents = {};
    char type = TAR_FILE;
    std::string target = {};
    unsigned mode = 0644;
};

void put_octal(std::string &header, std::size_t offset, std::size_t width, std::size_t value)
{
    char digits[16];
    std::snprintf(digits, sizeof digits, "%0*zo", static_cast<int>(width - 1), value);
    header.replace(offset, width - 1, digits);
}

std::string tar_entry_of(const tar_member &member)
{
    std::string header(TAR_BLOCK_BYTES, '\0');
    header.replace(0, member.name.size(), member.name);
    put_octal(header, 100, 8, member.mode);
    put_octal(header, 108, 8, 0);
    put_octal(header, 116, 8, 0);
    put_octal(header, 124, 12, member.contents.size());
    put_octal(header, 136, 12, 0);
    header[156] = member.type;
    header.replace(157, member.target.size(), member.target);
    header.replace(257, 8,
                   std::string("ustar\0"
                               "00",
                               8));
    header.replace(148, 8, "        ");
    std::size_t sum = 0;
    for (const char byte : header)
        sum += static_cast<unsigned char>(byte);
    put_octal(header, 148, 7, sum);
    const std::size_t padding = (TAR_BLOCK_BYTES - member.contents.size() % TAR_BLOCK_BYTES) % TAR_BLOCK_BYTES;
    return header + member.contents + std::string(padding, '\0');
}

std::string tar_of(const std::vector<tar_member> &members)
{
    std::string archive;
    for (const tar_member &member : members)
        archive += tar_entry_of(member);
    return archive + std::string(2 * TAR_BLOCK_BYTES, '\0');
}

class ImageTools : public image_tool_test
{
protected:
    ImageTools() : image_tool_test("image-tools")
    {
        files::create_directories(destination());
        files::create_directories(outside());
    }

    int extract(const std::string &member = MEMBER, const std::string &options = {})
    {
        return run("veskadd -x " + options + " " + image() + " " + destination() + " " + member);
    }
    // Asked for a member of that archive, veskadd fails, says why, and leaves nothing anywhere.
    void expect_refusal(const std::string &archive, const std::string &reason, const std::string &member = MEMBER,
                        const std::string &options = {})
    {
        write_file(image(), archive);
        EXPECT_EQ(extract(member, options), 1);
        EXPECT_NE(errors().find(reason), std::string::npos) << errors();
        EXPECT_TRUE(files::is_empty(destination()));
        EXPECT_TRUE(files::is_empty(outside()));
    }

    std::string image() const { return path("image"); }
    std::string destination() const { return path("destination"); }
    std::string outside() const { return path("outside"); }
    std::string extracted(const std::string &member = MEMBER) const { return destination() + member; }
};

using Veskadd = ImageTools;
using BiosImage = ImageTools;

TEST_F(Veskadd, PutsAMemberUnderItsNameBelowTheDestination)
{
    const std::string contents = random_bytes(100'000);
    write_file(image(),
               tar_of({{.name = "other", .contents = "no"}, {.name = "vesk/bin/bios.gz", .contents = contents}}));
    ASSERT_EQ(extract(), 0) << errors();
    EXPECT_EQ(content_of(extracted()), contents);
    EXPECT_FALSE(files::exists(destination() + "/other"));
}

TEST_F(Veskadd, FindsAMemberHoweverItsLeadingSlashIsWritten)
{
    for (const char *name : {"vesk/bin/bios.gz", "./vesk/bin/bios.gz", "/vesk/bin/bios.gz"}) {
        write_file(image(), tar_of({{.name = name, .contents = name}}));
        ASSERT_EQ(extract("vesk/bin/bios.gz"), 0) << name << ": " << errors();
        EXPECT_EQ(content_of(extracted()), name);
    }
}

TEST_F(Veskadd, ReadsACompressedArchiveWithARelativeName)
{
    write_file(path("plain"), tar_of({{.name = "vesk/bin/bios.gz", .contents = "bytes"}}));
    ASSERT_EQ(std::system(("gzip -c " + path("plain") + " >" + image()).c_str()), 0);
    EXPECT_EQ(run("veskadd -x image ./destination " + std::string(MEMBER)), 0) << errors();
    EXPECT_EQ(content_of(extracted()), "bytes");
}

TEST_F(Veskadd, TakesTheFirstOfTwoMembersOfAName)
{
    write_file(image(), tar_of({{.name = "vesk/bin/bios.gz", .contents = "1"},
                                {.name = "vesk/bin/bios.gz", .contents = "2"}}));
    ASSERT_EQ(extract(), 0);
    EXPECT_EQ(content_of(extracted()), "1");
}

TEST_F(Veskadd, ReplacesAnEarlierFile)
{
    files::create_directories(destination() + "/vesk/bin");
    write_file(extracted(), "a longer one from before");
    write_file(image(), tar_of({{.name = "vesk/bin/bios.gz", .contents = "new"}}));
    ASSERT_EQ(extract(), 0);
    EXPECT_EQ(content_of(extracted()), "new");
}

TEST_F(Veskadd, DropsPrivilegesOfAMember)
{
    write_file(image(), tar_of({{.name = "vesk/bin/bios.gz", .contents = "x", .mode = 06777}}));
    ASSERT_EQ(extract(), 0);
    EXPECT_EQ(files::status(extracted()).permissions(), files::perms(0755));
}

TEST_F(Veskadd, RefusesANameThatLeadsOutOfTheDestination)
{
    const std::string archive = tar_of({{.name = "../outside/x", .contents = "x"}});
    expect_refusal(archive, "leads out", "../outside/x");
    expect_refusal(archive, "leads out", "/vesk/../../outside/x");
    expect_refusal(archive, "has no member", "/outside/x");
    expect_refusal(archive, "empty", "/");
}

TEST_F(Veskadd, RefusesAMemberThatIsNoRegularFile)
{
    for (const char type : {TAR_SYMBOLIC_LINK, TAR_HARD_LINK})
        expect_refusal(tar_of({{.name = "vesk/bin/bios.gz", .type = type, .target = "../../x"}}), "is a link");
    for (const char type : {TAR_CHARACTER_DEVICE, TAR_FOLDER, TAR_PIPE})
        expect_refusal(tar_of({{.name = "vesk/bin/bios.gz", .type = type}}), "not a regular file");
}

TEST_F(Veskadd, DoesNotGoThroughAPlantedLinkToAFolder)
{
    files::create_directory_symlink(outside(), destination() + "/vesk");
    write_file(image(), tar_of({{.name = "vesk/bin/bios.gz", .contents = "x"}}));
    EXPECT_EQ(extract(), 1);
    EXPECT_TRUE(files::is_empty(outside()));
    EXPECT_EQ(std::distance(files::directory_iterator(destination()), {}), 1); // the link itself
}

TEST_F(Veskadd, ReplacesAPlantedLinkToAFileAndLeavesItsTarget)
{
    write_file(path("target"), "precious");
    files::create_directories(destination() + "/vesk/bin");
    files::create_symlink(path("target"), extracted());
    write_file(image(), tar_of({{.name = "vesk/bin/bios.gz", .contents = "x"}}));
    ASSERT_EQ(extract(), 0);
    EXPECT_EQ(content_of(path("target")), "precious");
    EXPECT_FALSE(files::is_symlink(extracted()));
    EXPECT_EQ(content_of(extracted()), "x");
}

TEST_F(Veskadd, LeavesNothingOfAMemberThatIsCutShort)
{
    const std::string whole = tar_of({{.name = "vesk/bin/bios.gz", .contents = random_bytes(200'000)}});
    expect_refusal(whole.substr(0, 150'000), "runcated");
}

TEST_F(Veskadd, LeavesNothingOfAMemberThatIsLargerThanAllowed)
{
    const std::string archive = tar_of({{.name = "vesk/bin/bios.gz", .contents = std::string((1 << 20) + 1, 'x')}});
    expect_refusal(archive, "larger than 1 MiB", MEMBER, "-l 1");
    EXPECT_EQ(extract(MEMBER, "-l 2"), 0);
}

// As the card's commands are run.
TEST_F(Veskadd, LeavesNothingOfAMemberBeyondTheCallersLimit)
{
    write_file(image(), tar_of({{.name = "vesk/bin/bios.gz", .contents = random_bytes(200'000)}}));
    struct rlimit before {
    };
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    const struct rlimit limited = {100'000, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limited), 0);
    EXPECT_EQ(extract(), 1);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
    EXPECT_NE(errors().find("File too large"), std::string::npos) << errors();
    EXPECT_TRUE(files::is_empty(destination()));
}

// The archive library would start a program of that name for these.
TEST_F(Veskadd, StartsNoProgramToUnpackAnImage)
{
    const std::string started = path("started");
    for (const char *name : {"grzip", "lrzip", "lzop"}) {
        write_file(path(name), "#!/bin/sh\n: >" + started + "\n");
        files::permissions(path(name), files::perms::owner_all);
    }
    const std::string search_path = std::getenv("PATH");
    ASSERT_EQ(::setenv("PATH", (path("") + ":" + search_path).c_str(), 1), 0);
    const std::string zeros(TAR_BLOCK_BYTES, '\0');
    expect_refusal(std::string("GRZipII\0\x02\x04:)", 12) + zeros, "archive");
    expect_refusal(std::string("LRZI\0\x06", 6) + zeros, "archive");
    expect_refusal(std::string("\x89LZO\0\r\n\x1a\n\x10\x30\x20\xa0", 13) + zeros, "archive");
    EXPECT_EQ(::setenv("PATH", search_path.c_str(), 1), 0);
    EXPECT_FALSE(files::exists(started));
}

// The archive library has no text for this failure.
TEST_F(Veskadd, RefusesAnExtendedHeaderThatIsCutShort)
{
    const std::string header = tar_entry_of({.name = "attributes", .contents = std::string(120, 'x'), .type = 'x'});
    expect_refusal(header.substr(0, TAR_BLOCK_BYTES + 8), "unknown error of the archive");
}

TEST_F(Veskadd, RefusesWhatIsNoArchive)
{
    expect_refusal("plain text, and longer than nothing", "archive");
    expect_refusal("", "");
    files::remove(image());
    EXPECT_EQ(extract(), 1);
}

TEST_F(Veskadd, TellsWrongUsageByItsExitStatus)
{
    EXPECT_EQ(run("veskadd"), 64);
    EXPECT_EQ(run("veskadd -x " + image() + " " + destination()), 64);
    EXPECT_EQ(run("veskadd " + image() + " " + destination() + " " + MEMBER), 64);
    EXPECT_EQ(extract(MEMBER, "-l 0"), 64);
    EXPECT_EQ(extract(MEMBER, "-l 1x"), 64);
}

TEST_F(BiosImage, BuildsHeaderErasedSpaceAndPayloadAtTheEnd)
{
    const std::string payload = random_bytes(3000);
    write_file(path("payload"), payload);
    ASSERT_EQ(run("bios_image build --output " + image() + " --size 64K --version 3.12 --date 09/17/12 --payload " +
                  path("payload")),
              0)
        << errors();
    const std::string bytes = content_of(image());
    ASSERT_EQ(bytes.size(), 64u * 1024);
    bios_header header{};
    ASSERT_TRUE(bios_header_read(bytes.data(), header));
    EXPECT_EQ(bios_header_text(header), "  v3.12.0(09/17/12)");
    EXPECT_EQ(bytes.substr(BIOS_HEADER_BYTES, bytes.size() - BIOS_HEADER_BYTES - payload.size()),
              std::string(bytes.size() - BIOS_HEADER_BYTES - payload.size(), '\xff'));
    EXPECT_EQ(bytes.substr(bytes.size() - payload.size()), payload);
}

// What firmware says of itself when it runs, is then the version of the image that it came in.
TEST_F(BiosImage, PutsItsVersionInThePlaceOfThePayloads)
{
    const std::string before = random_bytes(1000) + '\0';
    const std::string behind = '\0' + random_bytes(1000);
    write_file(path("payload"), before + "1.16.2-vendor-1.16.2-1" + behind);
    ASSERT_EQ(run("bios_image build --output " + image() + " --size 64K --version 3.12 --date 09/17/12 --payload " +
                  path("payload") + " --payload-version 1.16.2-vendor-1.16.2-1"),
              0)
        << errors();
    const std::string expected = before + "v3.12.0(09/17/12)     " + behind;
    EXPECT_EQ(content_of(image()).substr(64 * 1024 - expected.size()), expected);
}

TEST_F(BiosImage, RefusesAPayloadWhoseVersionItCannotReplace)
{
    write_file(path("payload"), "one 1.16.2-vendor-1.16.2-1 two v-two-v-two-v-two-v-two-v short 1.0 end");
    const std::string build = "bios_image build --output " + image() + " --size 64K --version 3.12 --date 09/17/12";
    const std::string with_payload = build + " --payload " + path("payload") + " --payload-version ";
    for (const auto &[command, reason] : {
             std::pair{with_payload + "1.16.3-vendor-1.16.3-1", "is 0 times in the payload"},
             std::pair{with_payload + "v-two-v-two-v-two", "is 2 times in the payload"},
             std::pair{with_payload + "1.0", "v3.12.0(09/17/12) is longer"},
         }) {
        EXPECT_EQ(run(command), 1) << command;
        EXPECT_NE(errors().find(reason), std::string::npos) << errors();
        EXPECT_FALSE(files::exists(image())) << command;
    }
    EXPECT_EQ(run(build + " --payload-version 1.16.2-vendor-1.16.2-1"), 64);
}

TEST_F(BiosImage, TellsSizeInMiBAndShowsWhatItBuilt)
{
    ASSERT_EQ(run("bios_image build --output " + image() + " --size 8 --version 1.2 --date 02/29/24"), 0);
    EXPECT_EQ(files::file_size(image()), 8u << 20);
    ASSERT_EQ(run("bios_image show " + image()), 0);
    EXPECT_EQ(output(), "version  v1.2.0(02/29/24)\nsize     8388608 bytes\n");
}

TEST_F(BiosImage, RefusesWhatDoesNotFitAndWritesNothing)
{
    write_file(path("payload"), std::string(4096 - BIOS_HEADER_BYTES + 1, 'x'));
    const std::string good = "bios_image build --output " + image();
    for (const std::string &wrong : {
             good + " --size 4K --version 1.2 --date 02/28/12 --payload " + path("payload"),
             good + " --size 4K --version 1.2 --date 02/30/12",
             good + " --size 4K --version 1.2 --date 13/01/12",
             good + " --size 4K --version 1.2 --date 02/28/2012",
             good + " --size 4K --version 100.2 --date 02/28/12",
             good + " --size 4K --version 1.-2 --date 02/28/12",
             good + " --size 4K --version 1 --date 02/28/12",
             good + " --size 0 --version 1.2 --date 02/28/12",
             good + " --size 3K --version 1.2 --date 02/28/12",
             good + " --size -8 --version 1.2 --date 02/28/12",
             good + " --size 8M --version 1.2 --date 02/28/12",
             good + " --size 4K --version 1.2 --date 02/28/12 --payload " + path("absent"),
         }) {
        EXPECT_EQ(run(wrong), 1) << wrong;
        EXPECT_FALSE(errors().empty()) << wrong;
        EXPECT_FALSE(files::exists(image())) << wrong;
    }
    EXPECT_EQ(run(good), 64);
    EXPECT_EQ(run("bios_image"), 64);
}

TEST_F(BiosImage, ShowsNoVersionOfAFileWithoutHeader)
{
    write_file(image(), std::string(4096, '\xff'));
    EXPECT_EQ(run("bios_image show " + image()), 1);
    write_file(image(), "short");
    EXPECT_EQ(run("bios_image show " + image()), 1);
}

TEST_F(BiosImage, MakesASystemImageThatVeskaddAndGunzipTakeApart)
{
    const std::string bios = random_bytes(300'000);
    write_file(path("bios"), bios);
    write_file(path("second"), "another");
    ASSERT_EQ(run("bios_image system --output " + image() + " --bios a.bin.gz=" + path("bios") +
                  " --bios b.bin.gz=" + path("second")),
              0)
        << errors();
    ASSERT_EQ(extract("/vesk/plugin_img/core_plugin"), 0) << errors();
    const std::string plugin = destination() + "/vesk/plugin_img/core_plugin";
    for (const char *name : {"a.bin", "b.bin"}) {
        const std::string member = "/vesk/bin/" + std::string(name);
        ASSERT_EQ(run("veskadd -x " + plugin + " " + destination() + " " + member + ".gz"), 0);
        ASSERT_EQ(std::system(("gunzip " + destination() + member + ".gz").c_str()), 0);
    }
    EXPECT_EQ(content_of(destination() + "/vesk/bin/a.bin"), bios);
    EXPECT_EQ(content_of(destination() + "/vesk/bin/b.bin"), "another");
}

TEST_F(BiosImage, GivesEqualSystemImagesForEqualInput)
{
    write_file(path("bios"), random_bytes(5000));
    for (const char *name : {"one", "two"})
        ASSERT_EQ(run("bios_image system --output " + path(name) + " --bios a.gz=" + path("bios")), 0);
    EXPECT_EQ(content_of(path("one")), content_of(path("two")));
    // What would differ a second later: the time in the header of the compression.
    EXPECT_EQ(content_of(path("one")).substr(4, 4), std::string(4, '\0'));
}

TEST_F(BiosImage, PutsImagesIntoATree)
{
    write_file(path("bios"), "contents");
    ASSERT_EQ(run("bios_image tree --root " + destination() + " --bios a.bin.gz=" + path("bios")), 0);
    ASSERT_EQ(std::system(("gunzip " + destination() + "/vesk/bin/a.bin.gz").c_str()), 0);
    EXPECT_EQ(content_of(destination() + "/vesk/bin/a.bin"), "contents");
}

TEST_F(BiosImage, RefusesNamesOutsideOfTheImageFolder)
{
    write_file(path("bios"), "contents");
    for (const char *name : {"../a.gz", "x/a.gz", "..", ""})
        EXPECT_EQ(run("bios_image tree --root " + destination() + " --bios " + name + "=" + path("bios")), 1);
    EXPECT_EQ(run("bios_image system --output " + image() + " --bios a.gz=" + path("absent")), 1);
    EXPECT_FALSE(files::exists(image()));
    EXPECT_EQ(std::distance(files::directory_iterator(path("")), {}), 5); // the test's own
}

} // namespace
