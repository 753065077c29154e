// A card's disk that becomes full while one of its flashes is programmed: what is in the flash is what is shown, a
// success is one, and what could not be recorded is told.
#include <csignal>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

#include <nlohmann/json.hpp>

#include "bios_refusals.h"
#include "chassis_dir.h"
#include "chassis_fixture.h"
#include "flash_event_log.h"
#include "flash_order.h"
#include "held_locks.h"
#include "without_pauses.h"

namespace
{

namespace files = std::filesystem;
using nlohmann::json;

constexpr unsigned DISK_KIB = 96 * 1024;
constexpr const char *SLOT = "slots/1";

bool says(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

class FillingDisk : public chassis_test
{
protected:
    // The card's files are on a disk of their own, its boot flash on another one.
    bool up_on_disk()
    {
        insert({.slot = 1, .bootflash_mib = 2});
        insert({.slot = 2, .role = "standby", .in_tree = nullptr});
        return put_on_disk(SLOT, DISK_KIB) && up_with_disks();
    }
    void TearDown() override
    {
        make_room(); // what the launcher records at the end
        chassis_test::TearDown();
    }
    std::string filler() const { return slot_file(1, "filler"); }
    void fill() const
    {
        std::ofstream file(filler(), std::ios::binary);
        const std::string piece(64 * 1024, 'x');
        while (file.write(piece.data(), static_cast<std::streamsize>(piece.size())).flush())
            ;
    }
    void make_room() const { files::remove(filler()); }
    // Leaves the log no room, neither reserved nor in its last page.
    void use_up_the_log() const
    {
        constexpr std::uintmax_t PAGE_BYTES = 4096;
        constexpr std::uintmax_t SHORTEST_LINE_BYTES = 200;
        const std::string log = flash_file(1, "events");
        ASSERT_EQ(chassis_attach(chassis_directory(), 0), 0);
        for (flash_event refusal{.slot = 1, .kind = flash_event_kind::refused, .result = 0x4071000a};
             files::file_size(log) % PAGE_BYTES < PAGE_BYTES - SHORTEST_LINE_BYTES;
             refusal.attempt = refusal.attempt ? std::nullopt : std::optional(1U))
            ASSERT_FALSE(flash_event_append(open_flash_folder(1, 0), refusal));
        write_file(log, file_content(log));
    }
    // Of the card's last order.
    std::optional<flash_order> order() const
    {
        return chassis_attach(chassis_directory(), 0) == 0 ? flash_order_read(1, 0) : std::nullopt;
    }
    // The operator's view of the flash.
    json shown() const { return json::parse(biosctl({"show", "1", "--json"}).output); }
    std::string version_shown() const
    {
        const json flash = shown()["cards"][0]["flashes"][0]["flash"];
        return flash.is_null() ? "" : flash.get<std::string>();
    }
    std::string story() const
    {
        std::string text;
        std::istringstream lines(biosctl({"events", "1", "--json"}).output);
        for (std::string line; std::getline(lines, line);) {
            const json event = json::parse(line);
            text +=
                (text.empty() ? "" : " ") + (event.contains("event") ? event["event"].get<std::string>() : "fault");
        }
        return text;
    }
    void expect_no_false_screen() const
    {
        const bool is_new = flash_of(1) == new_image().bytes;
        const bool is_old = flash_of(1) == old_image().bytes;
        const std::string version = version_shown();
        EXPECT_TRUE(is_marked(1) || is_new || is_old) << "a flash without a marker is whole";
        EXPECT_TRUE(version.empty() || !is_marked(1)) << "a marked flash has no version";
        EXPECT_TRUE(version.empty() || says((is_new ? new_image() : old_image()).version, version)) << version;
        const finished_program watched = biosctl({"watch", "--once"});
        EXPECT_EQ(says(watched.output, "not verified"), is_marked(1)) << watched.output;
        EXPECT_EQ(locks_held(), held_locks());
    }
};

} // namespace

TEST_F(FillingDisk, AtAnyMomentOfAProgrammingEndsWithTheTruth)
{
    if (!up_on_disk())
        GTEST_SKIP() << "mounting is not allowed here";
    write_file(flash_file(1, "timing"), "1\n");
    const unsigned seed = std::random_device()();
    std::mt19937 random(seed);
    for (unsigned round = 0; round < 6; ++round) {
        SCOPED_TRACE("seed " + std::to_string(seed) + ", round " + std::to_string(round));
        write_file(flash_file(1, "data"), old_image().bytes);
        running_program asked(biosctl_words({"program", "1"}));
        ASSERT_TRUE(wait_until([&] { return is_marked(1); }));
        const pid_t child = child_pid(1);
        ASSERT_NE(child, 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 3800));
        (void)::kill(child, SIGSTOP);
        fill();
        (void)::kill(child, SIGCONT);
        const finished_program finished = asked.wait();
        EXPECT_EQ(finished.exit_code, 0) << finished.errors;
        EXPECT_EQ(flash_of(1) == new_image().bytes, true);
        EXPECT_FALSE(is_marked(1));
        ASSERT_TRUE(order());
        EXPECT_EQ(order()->state, flash_order_state::verified);
        expect_no_false_screen();
        EXPECT_TRUE(story().ends_with("begun attempt verified ended")) << story();
        EXPECT_EQ(biosctl({"events", "1"}).exit_code, 0);
        make_room();
    }
}

// Ordered and not begun: the disk is full when the image is claimed.
TEST_F(FillingDisk, BeforeTheFirstChangeLeavesTheFlashAlone)
{
    if (!up_on_disk())
        GTEST_SKIP() << "mounting is not allowed here";
    keep_pauses(1);
    running_program asked(biosctl_words({"program", "1"}));
    ASSERT_TRUE(wait_until([&] { return child_pid(1) != 0; }));
    fill();
    const finished_program finished = asked.wait();
    EXPECT_EQ(finished.exit_code, 1) << finished.errors;
    EXPECT_FALSE(says(finished.errors, "verified")) << finished.errors;
    EXPECT_TRUE(says(finished.errors, "disk")) << finished.errors;
    EXPECT_TRUE(says(finished.errors, "not touched")) << finished.errors;
    EXPECT_EQ(flash_of(1) == old_image().bytes, true);
    EXPECT_FALSE(is_marked(1));
    expect_no_false_screen();
    const finished_program events = biosctl({"events", "1"});
    EXPECT_EQ(events.exit_code, 1);
    EXPECT_TRUE(says(events.errors, "could not be written: the card's disk was full")) << events.errors;
    EXPECT_TRUE(says(biosctl({"audit", "1"}).output, "could not be written: the card's disk was full"));

    make_room();
    files::remove(card_file(1, PAUSES));
    EXPECT_EQ(biosctl({"program", "1"}).exit_code, 0);
    EXPECT_TRUE(says(story(), "lost begun attempt verified ended")) << story();
    EXPECT_EQ(biosctl({"events", "1"}).exit_code, 0);
    expect_no_false_screen();
}

// A client that orders nothing is not held up by records that cannot be made. What the programming before has left
// reserved takes its end, and its events.
TEST_F(FillingDisk, FromTheBeginningOnOfAProgrammingWithoutAnOrder)
{
    if (!up_on_disk())
        GTEST_SKIP() << "mounting is not allowed here";
    ASSERT_EQ(biosctl({"program", "1"}).exit_code, 0);
    make_image_tree(slot_file(1, "root"), 90, old_image());
    fill();
    const programming seen = program(1);
    EXPECT_EQ(seen.result, std::optional<std::uint32_t>(0)) << seen;
    EXPECT_EQ(flash_of(1) == old_image().bytes, true);
    EXPECT_FALSE(is_marked(1));
    ASSERT_TRUE(order());
    EXPECT_EQ(order()->state, flash_order_state::verified);
    EXPECT_EQ(order()->user, "");
    expect_no_false_screen();
    EXPECT_TRUE(story().ends_with("ended begun attempt verified ended")) << story();
    const finished_program audit = biosctl({"audit", "1"});
    EXPECT_FALSE(says(audit.output, "changed since")) << audit.output;
}

// Nothing is reserved any more.
TEST_F(FillingDisk, WithoutAnythingReservedIsToldAndNotShownAsIfNothingHadHappened)
{
    if (!up_on_disk())
        GTEST_SKIP() << "mounting is not allowed here";
    ASSERT_EQ(biosctl({"program", "1"}).exit_code, 0);
    make_image_tree(slot_file(1, "root"), 90, old_image());
    use_up_the_log();
    files::remove(slot_file(1, "orders/primary.reserved"));
    files::remove(slot_file(1, "syslog"));
    files::create_symlink("../../syslog", slot_file(1, "syslog")); // of the card, on another disk
    const std::uint64_t last = flash_event_last_of(1, 0)->sequence;
    fill();
    const programming seen = program(1);
    EXPECT_EQ(seen.result, std::optional<std::uint32_t>(0)) << seen;
    EXPECT_EQ(flash_of(1) == old_image().bytes, true);
    EXPECT_FALSE(is_marked(1));
    expect_no_false_screen();
    const std::string told = file_content(chassis_directory() + "/syslog");
    EXPECT_TRUE(says(told, "primary flash: event \"verified\" not written: No space left on device")) << told;
    EXPECT_TRUE(says(told, "primary flash: verified, which was not recorded: No space left on device")) << told;
    for (const char *screen : {"events", "audit"}) {
        const finished_program shown = biosctl({screen, "1"});
        EXPECT_EQ(shown.exit_code, 1);
        EXPECT_TRUE(says(shown.output + shown.errors,
                         "4 events behind event " + std::to_string(last) + " could not be written"))
            << shown.output << shown.errors;
    }
    make_room();
    make_image_tree(slot_file(1, "root"), 90, new_image());
    EXPECT_EQ(biosctl({"program", "1"}).exit_code, 0);
    EXPECT_TRUE(story().ends_with("refused lost begun attempt verified ended")) << story();
    EXPECT_EQ(biosctl({"events", "1"}).exit_code, 0);
    EXPECT_FALSE(says(biosctl({"audit", "1"}).output, "could not be written"));
    expect_no_false_screen();
}

// A disk may have room and take no more files: the marker is one.
TEST_F(FillingDisk, WithoutAPlaceForTheMarkerLeavesTheFlashAlone)
{
    insert({.slot = 1});
    if (!put_on_disk("slots/1/flash", 2048, 60))
        GTEST_SKIP() << "mounting is not allowed here";
    up();
    ASSERT_EQ(biosctl({"program", "1"}).exit_code, 0);
    make_image_tree(slot_file(1, "root"), 90, image("3.0"));
    unsigned names = 0;
    while (std::ofstream(flash_file(1, "name" + std::to_string(names))))
        ++names;
    ASSERT_GT(names, 0U);
    const finished_program finished = biosctl({"program", "1"});
    EXPECT_EQ(finished.exit_code, 1) << finished.errors;
    EXPECT_EQ(flash_of(1) == new_image().bytes, true);
    EXPECT_FALSE(is_marked(1));
    EXPECT_FALSE(says(finished.errors, "do not reboot")) << finished.errors;
    EXPECT_TRUE(says(finished.errors, "not touched")) << finished.errors;
    EXPECT_TRUE(says(version_shown(), "v2.5.0")) << version_shown();
    EXPECT_EQ(locks_held(), held_locks());
    for (unsigned name = 0; name < names; ++name)
        files::remove(flash_file(1, "name" + std::to_string(name)));
    EXPECT_EQ(biosctl({"program", "1"}).exit_code, 0);
    EXPECT_EQ(flash_of(1) == image("3.0").bytes, true);
}
