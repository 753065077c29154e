// Disks without room: whoever cannot write says that it is for want of room, and what was to be made whole is not
// there in parts.
#include <filesystem>
#include <fstream>
#include <sys/resource.h>
#include <unistd.h>

#include "chassis_fixture.h"
#include "held_locks.h"

namespace
{

namespace files = std::filesystem;

constexpr int FAILED = 1;
constexpr const char *FULL = "No space left on device";
constexpr const char *FULL_CARD = "no space left on the card's disk";

// Mounts a file system of a size on a folder, only for itself and what it starts there.
constexpr const char *IN_SMALL_DISK = "mount -t tmpfs -o size=\"$1\" none \"$2\" && shift 2 && sh -c \"$@\"";

bool says(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

class FullDisk : public chassis_test
{
protected:
    FullDisk() { files::create_directory(disk()); }

    std::string disk() const { return workspace() + "/disk"; }

    // A script of the shell, whose first word is $0, runs with a disk of so many KiB.
    finished_program with_disk(unsigned kib, const std::string &script, const std::vector<std::string> &words) const
    {
        std::vector<std::string> all = {"unshare", ::geteuid() == 0 ? "-m" : "-Urm", "sh", "-c", IN_SMALL_DISK,
                                        "sh"};
        all.insert(all.end(), {std::to_string(kib) + "k", disk(), script});
        all.insert(all.end(), words.begin(), words.end());
        return run_program(all);
    }
    bool can_mount() const { return with_disk(64, "true", {"sh"}).exit_code == 0; }

    // Fills a card's boot flash.
    void leave_kib(unsigned slot, unsigned kib)
    {
        const std::string filler = on_bootflash(slot, "filler");
        files::remove(filler);
        const auto free_kib =
            static_cast<unsigned>(files::space(files::path(filler).parent_path()).available >> 10);
        write_file(filler, std::string((free_kib - kib) * std::size_t{1024}, 'x'));
    }

    // A description of a chassis of one card with the smallest flash.
    std::string description() const
    {
        const std::string path = workspace() + "/small.toml";
        write_file(path, "[[card]]\nslot = 1\ncard_id = 90\nkind = \"supervisor\"\nrole = \"active\"\n"
                         "flash_kib = 64\nsector_kib = 16\n");
        return path;
    }
    std::string made(const std::string &name, const std::vector<std::string> &words) const
    {
        const std::string path = workspace() + "/" + name;
        std::vector<std::string> all = {BIOS_IMAGE_PROGRAM};
        all.insert(all.end(), words.begin(), words.end());
        all.insert(all.end(), {"--output", path});
        EXPECT_EQ(run_program(all).exit_code, 0);
        return path;
    }
};

} // namespace

TEST_F(FullDisk, KeepsInitFromMakingPartOfAChassis)
{
    if (!can_mount())
        GTEST_SKIP() << "mounting is not allowed here";
    unsigned made = 0;
    for (unsigned kib = 4; kib <= 512; kib += kib < 48 ? 4 : 36) {
        const finished_program init =
            with_disk(kib,
                      "\"$0\" --dir \"$1\"/c init \"$2\"; status=$?; [ $status = 0 ] || [ -z \"$(ls -A \"$1\")\" ] "
                      "|| echo left; exit $status",
                      {CHASSIS_PROGRAM, disk(), description()});
        made += init.exit_code == 0 ? 1 : 0;
        EXPECT_TRUE(init.exit_code == 0 || (init.exit_code == FAILED && says(init.errors, FULL)))
            << kib << " KiB: " << init.exit_code << init.errors;
        EXPECT_EQ(init.output, "") << kib << " KiB: something is left";
    }
    EXPECT_GT(made, 0U);
}

TEST_F(FullDisk, KeepsUpFromStartingACard)
{
    if (!can_mount())
        GTEST_SKIP() << "mounting is not allowed here";
    const std::string script =
        "\"$0\" --dir \"$1\"/c init \"$2\" || exit 9; left=$(df --output=avail \"$1\" | tail -n 1);"
        "head -c $((left * 1024 - $3 * 1024)) /dev/zero >\"$1\"/filler;"
        "\"$0\" --dir \"$1\"/c up --timeout 20; status=$?;"
        "rm \"$1\"/filler; \"$0\" --dir \"$1\"/c down || status=8; exit $status";
    for (const unsigned left_kib : {0U, 4U, 8U, 64U}) {
        const finished_program up =
            with_disk(1024, script, {CHASSIS_PROGRAM, disk(), description(), std::to_string(left_kib)});
        EXPECT_EQ(up.exit_code, FAILED) << left_kib << " KiB: " << up.errors;
        EXPECT_TRUE(says(up.errors, FULL)) << left_kib << " KiB: " << up.errors;
    }
}

TEST_F(FullDisk, KeepsTheImageToolFromMakingPartOfAFile)
{
    if (!can_mount())
        GTEST_SKIP() << "mounting is not allowed here";
    const std::string payload = workspace() + "/payload";
    ASSERT_EQ(run_program({"sh", "-c", "head -c 200000 /dev/urandom >\"$0\"", payload}).exit_code, 0);
    const std::vector<std::string> version = {"--version", "3.5", "--date", "09/17/12", "--size", "256K"};
    const std::vector<std::string> build = {"build",  "--version", "3.5",       "--date", "09/17/12",
                                            "--size", "256K",      "--payload", payload};
    const std::string plain = made("plain", build);
    const std::string with_manifest = made("manifest", {"manifest", "--image", plain, "--family", "x86n"});
    const std::string secret = workspace() + "/secret";
    ASSERT_EQ(run_program({BIOS_IMAGE_PROGRAM, "keygen", "--secret", secret, "--public", workspace() + "/public"})
                  .exit_code,
              0);
    const std::string output = disk() + "/output";
    const std::vector<std::vector<std::string>> commands = {
        {"build", "--version", "3.5", "--date", "09/17/12", "--size", "256K", "--output", output},
        {"manifest", "--image", plain, "--family", "x86n", "--output", output},
        {"sign", "--image", with_manifest, "--key", secret, "--output", output},
        {"loader", "--version", "1", "--payload", payload, "--output", output},
        {"system", "--bios", "bios-x86n.bin.gz=" + plain, "--output", output},
        {"system", "--loader", payload, "--output", output},
        {"tree", "--bios", "bios-x86n.bin.gz=" + plain, "--root", disk()},
        {"keygen", "--secret", output, "--public", disk() + "/second"},
    };
    for (const std::vector<std::string> &command : commands) {
        // A pair of keys is smaller than the disk: it has room for the first one alone.
        const std::string filler = command.front() == "keygen" ? "head -c 12288 /dev/zero >\"$1\"/filler;" : "";
        std::vector<std::string> words = {BIOS_IMAGE_PROGRAM, disk()};
        words.insert(words.end(), command.begin(), command.end());
        const finished_program finished =
            with_disk(16,
                      filler + "disk=$1; tool=$0; shift; \"$tool\" \"$@\"; status=$?; rm -f \"$disk\"/filler;"
                               "find \"$disk\" -type f; exit $status",
                      words);
        EXPECT_EQ(finished.exit_code, FAILED) << command.front() << finished.errors;
        EXPECT_TRUE(says(finished.errors, FULL)) << command.front() << " says: " << finished.errors;
        EXPECT_EQ(finished.output, "") << command.front() << " has left something";
    }
}

// An agent that cannot write files any more, as large as an order's record.
TEST_F(FullDisk, KeepsWhatCannotBeRecordedFromBeingProgrammed)
{
    insert({.slot = 1});
    up();
    const rlimit nothing = {.rlim_cur = 16, .rlim_max = 16};
    ASSERT_EQ(::prlimit(agent_pid(1), RLIMIT_FSIZE, &nothing, nullptr), 0);
    const finished_program refused = biosctl({"program", "1"});
    EXPECT_EQ(refused.exit_code, FAILED);
    EXPECT_TRUE(says(refused.errors, "not begun")) << refused.errors;
    EXPECT_TRUE(says(refused.errors, FULL_CARD)) << refused.errors;
    EXPECT_TRUE(says(refused.errors, "make room on the card's disk")) << refused.errors;
    EXPECT_EQ(flash_of(1) == old_image().bytes, true);
    const finished_program lock = biosctl({"lock", "1"});
    EXPECT_EQ(lock.exit_code, FAILED);
    EXPECT_TRUE(says(lock.errors, FULL_CARD)) << lock.errors;
}

// What cannot be recorded as cancelled is not.
TEST_F(FullDisk, KeepsAnOrderFromBeingCancelled)
{
    insert({.slot = 1});
    up();
    keep_pauses(1);
    running_program ordered(biosctl_words({"program", "1"}));
    ASSERT_TRUE(wait_until([&] { return child_pid(1) != 0; }));
    const rlimit nothing = {.rlim_cur = 16, .rlim_max = 16};
    ASSERT_EQ(::prlimit(agent_pid(1), RLIMIT_FSIZE, &nothing, nullptr), 0);
    const finished_program cancelled = biosctl({"cancel", "1"});
    EXPECT_EQ(cancelled.exit_code, FAILED);
    EXPECT_TRUE(says(cancelled.errors, "not cancelled: " + std::string(FULL_CARD))) << cancelled.errors;
    (void)ordered.wait();
    EXPECT_EQ(flash_of(1) == new_image().bytes, true);
}

TEST_F(FullDisk, OfABootFlashIsNamedAsTheCause)
{
    insert({.slot = 1, .bootflash_mib = 1});
    if (!up_with_disks())
        GTEST_SKIP() << "mounting is not allowed here";
    const std::string system = on_bootflash(1, "system.img");
    make_system_image(system, 90, image("9.9"));
    const std::vector<std::vector<std::string>> programmings = {
        {"program", "1"}, {"program", "1", "--image", "bootflash:system.img"}};
    for (const std::vector<std::string> &words : programmings) {
        leave_kib(1, 64);
        const finished_program refused = biosctl(words);
        EXPECT_EQ(refused.exit_code, FAILED) << refused.errors;
        EXPECT_TRUE(says(refused.errors, "/bootflash of slot 1 is too full to unpack it")) << refused.errors;
        EXPECT_TRUE(says(refused.errors, "next: remove files from /bootflash of slot 1")) << refused.errors;
        EXPECT_EQ(flash_of(1) == old_image().bytes, true);
    }
    EXPECT_EQ(biosctl({"show"}).exit_code, 0) << "only a programming unpacks there";
    expect_tidy(1);
}

// The room that is said to be enough is.
TEST_F(FullDisk, OfABootFlashIsNotNamedWhenThereIsJustEnoughRoom)
{
    insert({.slot = 1, .bootflash_mib = 1});
    if (!up_with_disks())
        GTEST_SKIP() << "mounting is not allowed here";
    const std::string filler = on_bootflash(1, "filler");
    std::size_t filled_kib = 1024;
    for (; filled_kib > 0; filled_kib -= 16) {
        write_file(filler, std::string(filled_kib * 1024, 'x'));
        const finished_program dry = biosctl({"program", "1", "--dry-run"});
        if (dry.exit_code == 0)
            break;
        EXPECT_TRUE(says(dry.errors, "too full")) << dry.errors;
    }
    ASSERT_GT(filled_kib, 0U);
    ASSERT_LT(filled_kib, 1000U);
    const finished_program done = biosctl({"program", "1"});
    EXPECT_EQ(done.exit_code, 0) << done.errors;
    EXPECT_EQ(flash_of(1) == new_image().bytes, true);
}

// A tool that gets no endpoint has asked no agent.
TEST_F(FullDisk, WithoutAnEndpointNoAgentIsSaidToBeSilent)
{
    insert({.slot = 1});
    if (!put_on_disk("mts", 1024, 60))
        GTEST_SKIP() << "mounting is not allowed here";
    up();
    const auto name = [this](unsigned number) {
        return chassis_directory() + "/mts/name" + std::to_string(number);
    };
    unsigned names = 0;
    while (std::ofstream(name(names)))
        ++names;
    const finished_program refused = biosctl({"show"});
    EXPECT_EQ(refused.exit_code, FAILED);
    EXPECT_TRUE(
        says(refused.errors, "no transport endpoint could be bound in the chassis: No space left on device"))
        << refused.errors;
    EXPECT_FALSE(says(refused.errors, "agent")) << refused.errors;
    while (names > 0)
        std::filesystem::remove(name(--names));
    EXPECT_EQ(biosctl({"watch", "--once"}).exit_code, 0);
}

// The copy is written beside what is there already.
TEST_F(FullDisk, OfTheStandbysBootFlashIsNamedBeforeAnythingIsSent)
{
    insert({.slot = 1});
    insert({.slot = 2, .role = "standby", .in_tree = nullptr});
    if (!put_on_disk("slots/2/root/bootflash", 1024))
        GTEST_SKIP() << "mounting is not allowed here";
    up();
    const std::string copy = card_file(2, "/bootflash/.tmpbios.bin");
    write_file(copy, "of an earlier programming");
    leave_kib(2, SMALL_FLASH_KIB - 20);
    const std::vector<std::vector<std::string>> programmings = {
        {"program", "2", "--dry-run"}, {"program", "2"}, {"program", "2", "--json"}, {"sync"}};
    for (const std::vector<std::string> &words : programmings) {
        const finished_program refused = biosctl(words);
        const std::string told = refused.output + refused.errors;
        EXPECT_EQ(refused.exit_code, FAILED) << told;
        EXPECT_TRUE(says(told, "/bootflash of slot 2 is too full for a copy of it: 20 KiB are missing")) << told;
        EXPECT_TRUE(says(told, "remove files from /bootflash of slot 2")) << told;
        EXPECT_EQ(locks_held(), held_locks());
    }
    EXPECT_EQ(flash_of(2) == old_image().bytes, true);
    EXPECT_EQ(file_content(copy), "of an earlier programming") << "something was copied";
    EXPECT_EQ(biosctl({"events", "2"}).output, "no events: no flash was programmed yet\n");
    EXPECT_EQ(flash_of(1) == old_image().bytes, true) << "sync goes on after a failure";
}

TEST_F(FullDisk, OfTheStandbysBootFlashIsNotNamedWhenThereIsJustEnoughRoom)
{
    insert({.slot = 1});
    insert({.slot = 2, .role = "standby", .in_tree = nullptr});
    if (!put_on_disk("slots/2/root/bootflash", 1024))
        GTEST_SKIP() << "mounting is not allowed here";
    up();
    write_file(card_file(2, "/bootflash/.tmpbios.bin"), std::string(100'000, 'x'));
    leave_kib(2, SMALL_FLASH_KIB);
    EXPECT_EQ(biosctl({"program", "2", "--dry-run"}).exit_code, 0);
    const finished_program done = biosctl({"program", "2"});
    EXPECT_EQ(done.exit_code, 0) << done.errors;
    EXPECT_EQ(flash_of(2) == new_image().bytes, true);

    leave_kib(2, 0);
    const finished_program asked_itself = biosctl({"program", "2", "--via", "2", "--dry-run"});
    EXPECT_FALSE(says(asked_itself.errors, "too full")) << "nothing is copied then: " << asked_itself.errors;
    const finished_program active = biosctl({"program", "1"});
    EXPECT_EQ(active.exit_code, 0) << "it does without the copy: " << active.errors;
}
