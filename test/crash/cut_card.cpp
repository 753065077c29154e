#include "cut_card.h"

#include <csignal>
#include <filesystem>
#include <sstream>
#include <stdexcept>

#include "bios_results.h"
#include "figures.h"
#include "without_pauses.h"

namespace
{

namespace files = std::filesystem;

constexpr unsigned ACTIVE = 1;
constexpr unsigned FLASH_KIB = 16;
constexpr unsigned SECTOR_KIB = 4;
constexpr unsigned PAGE_BYTES = 256;
constexpr unsigned LARGE_PAGE_BYTES = 1024; // so that there are fewer cuts
constexpr unsigned NEVER = 1'000'000;       // more operations than a programming has
constexpr unsigned MAX_DAEMON_ENDS = 3;     // a few more in a minute, and the card does not start it again
constexpr const char *OPERATIONS[] = {"erase", "program", "read", "marker"};
constexpr std::chrono::seconds PATIENCE{30};

const test_image &old_bios()
{
    return image("1.2", FLASH_KIB);
}

const test_image &new_bios()
{
    return image("2.5", FLASH_KIB);
}

// State and parent in /proc/PID/stat.
struct process_status {
    char state = '?';
    pid_t parent = 0;
};

process_status status_of(pid_t process)
{
    try {
        const std::string text = file_content("/proc/" + std::to_string(process) + "/stat");
        std::istringstream rest(text.substr(std::min(text.rfind(')') + 1, text.size())));
        process_status status;
        rest >> status.state >> status.parent;
        return status;
    } catch (const std::runtime_error &) {
        return {};
    }
}

} // namespace

const char *name_of(cut_reach reach)
{
    static constexpr const char *NAMES[] = {"child", "daemon", "card"};
    return NAMES[static_cast<std::size_t>(reach)];
}

void cut_card_test::start(const cut_path &path)
{
    path_ = path;
    for (unsigned slot = ACTIVE; slot <= path.target; ++slot) {
        insert({.slot = slot,
                .role = slot == ACTIVE ? "active" : "standby",
                .card_id = path.card_id,
                .in_flash = &old_bios(),
                .in_tree = slot == ACTIVE ? &new_bios() : nullptr,
                .flash_kib = FLASH_KIB,
                .sector_kib = SECTOR_KIB});
    }
    up();
    write_file(flash_file(path.target, "page_bytes"),
               std::to_string(tries_all() ? PAGE_BYTES : LARGE_PAGE_BYTES) + "\n");
}

void cut_card_test::reset_flash() const
{
    write_file(flash_file(path_.target, "data"), old_bios().bytes);
    for (const char *name : {"faults", "programming", "violations"})
        files::remove(flash_file(path_.target, name));
}

std::string cut_card_test::violations() const
{
    const std::string path = flash_file(path_.target, "violations");
    return files::exists(path) ? file_content(path) : "";
}

std::map<std::string, unsigned> cut_card_test::count_operations()
{
    reset_flash();
    std::string rules;
    for (const char *operation : OPERATIONS)
        rules += std::string("stop ") + operation + " " + std::to_string(NEVER) + "\n";
    set_faults(path_.target, rules);
    const programming seen = program(path_.target);
    std::map<std::string, unsigned> count;
    std::istringstream left(file_content(flash_file(path_.target, "faults")));
    std::string fault, operation;
    for (unsigned rest = 0; left >> fault >> operation >> rest;)
        count[operation] = NEVER - rest;
    set_faults(path_.target, "");
    expect_programmed(seen, path_.target, new_bios()); // reads the flash as well
    return count;
}

programming cut_card_test::program_until_child_dies(const std::string &rule)
{
    set_faults(path_.target, rule);
    programming seen = program(path_.target);
    // A child without an exit status is reported as 0, and only the progress tells that from a success.
    EXPECT_EQ(seen.result, std::optional<std::uint32_t>(BIOS_OK)) << seen;
    return seen;
}

pid_t cut_card_test::standing_child() const
{
    const pid_t child = child_pid(path_.target);
    return child != 0 && status_of(child).state == 'T' ? child : 0;
}

programming cut_card_test::program_until_it_stands_still(const std::string &rule, cut_reach reach)
{
    set_faults(path_.target, rule + " hold");
    requester asking;
    programming seen = asking.start(path_.target);
    EXPECT_EQ(seen.answer, 0U) << seen;
    EXPECT_TRUE(wait_until([&] { return standing_child() != 0; })) << "there is no such operation";
    asking.take_progress(seen);
    if (reach == cut_reach::daemon)
        end_daemon();
    else
        end_card();
    if (path_.target != ACTIVE)
        await_active_child(asking, seen);
    asking.take_progress(seen);
    return seen;
}

void cut_card_test::end_daemon() const
{
    const pid_t daemon = daemon_pid(path_.target);
    const pid_t child = standing_child();
    ASSERT_GT(child, 1);
    ASSERT_EQ(::kill(daemon, SIGKILL), 0);
    ASSERT_EQ(::kill(child, SIGKILL), 0); // without its daemon it would go on
    ASSERT_TRUE(wait_until(
        [&] {
            const pid_t now = daemon_pid(path_.target);
            return now != 0 && now != daemon &&
                   file_content(slot_file(path_.target, "state")).starts_with("serving");
        },
        PATIENCE));
    EXPECT_TRUE(wait_until([&] { return ::kill(child, 0) != 0; }, PATIENCE)) << "nobody has waited for the child";
}

// All of the card's processes die with the first of them, at the same moment; then the card is started again.
void cut_card_test::end_card() const
{
    const pid_t child = standing_child();
    const pid_t first = status_of(daemon_pid(path_.target)).parent;
    ASSERT_GT(first, 1);
    ASSERT_EQ(::kill(first, SIGKILL), 0);
    const finished_program restarted = chassis({"restart", std::to_string(path_.target)});
    ASSERT_EQ(restarted.exit_code, 0) << restarted.errors;
    EXPECT_NE(::kill(child, 0), 0) << "the child outlived its card";
}

// The active supervisor gets no report any more.
void cut_card_test::await_active_child(requester &asking, programming &seen) const
{
    write_file(card_file(ACTIVE, CHILD_RECEIVE_MS), "0");
    asking.await_end(seen);
    files::remove(card_file(ACTIVE, CHILD_RECEIVE_MS));
    EXPECT_EQ(seen.result, std::optional<std::uint32_t>(BIOS_ERR_NO_COMPLETION)) << seen;
}

void cut_card_test::expect_honest(const programming &seen) const
{
    EXPECT_FALSE(files::exists(flash_file(path_.target, "faults"))) << "the cut has not happened";
    files::remove(flash_file(path_.target, "faults")); // it is not to happen to the test, which reads the flash
    const std::string now = flash_of(path_.target);
    const bool is_old = now == old_bios().bytes;
    const bool is_new = now == new_bios().bytes;
    EXPECT_TRUE(!seen.verified() || is_new) << "told as programmed: " << seen;
    EXPECT_TRUE(is_marked(path_.target) || is_old || is_new) << "half programmed, without marker";
    std::string version;
    const bool has_version = flash_version(path_.target, version) == 0;
    EXPECT_TRUE(!has_version || (is_old && version == old_bios().version) ||
                (is_new && version == new_bios().version))
        << "read as" << version;
    EXPECT_EQ(violations(), "");
    for (unsigned slot = ACTIVE; slot <= path_.target; ++slot)
        expect_tidy(slot, {".tmpbios.bin", ".tmpbios.bin.gz"});
}

void cut_card_test::expect_next_succeeds_at_once()
{
    expect_programmed(program(path_.target), path_.target, new_bios());
    EXPECT_EQ(violations(), "");
    expect_tidy(ACTIVE);
    if (path_.target != ACTIVE) {
        expect_tidy(path_.target, {".tmpbios.bin"}); // the active one replaces what it has sent by an empty file
        EXPECT_EQ(flash_of(ACTIVE) == old_bios().bytes, true) << "the active supervisor's flash has changed";
    }
}

void cut_card_test::cut_at(cut_reach reach, const std::string &cut, const std::string &operation, unsigned place)
{
    if (daemon_ends_ >= MAX_DAEMON_ENDS) {
        ASSERT_EQ(chassis({"restart", std::to_string(path_.target)}).exit_code, 0);
        daemon_ends_ = 0;
    }
    reset_flash();
    const std::string rule = cut + " " + operation + " " + std::to_string(place);
    if (reach == cut_reach::daemon)
        ++daemon_ends_;
    expect_honest(reach == cut_reach::child ? program_until_child_dies(rule)
                                            : program_until_it_stands_still(rule, reach));
    expect_next_succeeds_at_once();
}
