// A module that takes the forwarded programming and does not report its end. The supervisor waits for 1801
// time-outs of a second, which the test shortens with the daemon of without_pauses.h; for a module whose daemon is
// gone, or which does nothing by its agent's word, the transport answers.
#include <csignal>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bios_messages.h"
#include "bios_opcodes.h"
#include "bios_results.h"
#include "chassis_fixture.h"
#include "held_locks.h"
#include "played_module.h"
#include "without_pauses.h"

namespace
{

constexpr unsigned ACTIVE = 1;
constexpr unsigned TARGET = 2;
constexpr std::size_t TIME_OUTS = 1801;
constexpr unsigned FLASH_KIB = 512;

const test_image &old_bios()
{
    return image("1.2", FLASH_KIB);
}

const test_image &new_bios()
{
    return image("2.5", FLASH_KIB);
}

class ForwardingTimeOut : public chassis_test
{
protected:
    void insert_supervisors(bool target_serves)
    {
        for (const unsigned slot : {ACTIVE, TARGET}) {
            insert({.slot = slot,
                    .role = slot == ACTIVE ? "active" : "standby",
                    .in_flash = &old_bios(),
                    .in_tree = &new_bios(),
                    .flash_kib = FLASH_KIB,
                    .serves = slot == ACTIVE || target_serves});
        }
    }
    void shorten_waits() const { write_file(card_file(ACTIVE, CHILD_RECEIVE_MS), "1\n"); }

    // The target is met at work.
    void start_and_meet(requester &asking)
    {
        write_file(flash_file(TARGET, "timing"), "1\n");
        seen_ = asking.start(TARGET);
        ASSERT_EQ(seen_.answer, 0U) << seen_;
        ASSERT_TRUE(asking.await_progress(
            seen_,
            [](const programming &so_far) {
                return !so_far.progress.empty() && so_far.progress.back().percent > 10;
            },
            std::chrono::seconds(60)))
            << seen_;
        ASSERT_TRUE(is_marked(TARGET));
    }
    // Once a second while nothing comes.
    std::size_t time_outs() const
    {
        const std::string log = log_of(ACTIVE);
        std::size_t longest = 0;
        std::size_t run = 0;
        for (const char character : log) {
            run = character == 'W' ? run + 1 : 0;
            longest = std::max(longest, run);
        }
        return longest;
    }
    void expect_given_up(requester &asking)
    {
        asking.await_end(seen_);
        EXPECT_EQ(seen_.result, std::optional<std::uint32_t>(BIOS_ERR_NO_COMPLETION)) << seen_;
        EXPECT_EQ(seen_.module, std::optional<std::uint32_t>(TARGET));
        EXPECT_EQ(time_outs(), TIME_OUTS);
        EXPECT_EQ(lines_with(ACTIVE, "Got ret=40710008 from prog modules call"), 1U);
        EXPECT_EQ(lines_with(ACTIVE, "exit=800 retcode=40710008"), 1U);
        EXPECT_EQ(lines_with(ACTIVE, "MTS_OPC_BIOS_PROGRAMMING_DONE"), 0U);
        EXPECT_EQ(locks_held(), held_locks());
        EXPECT_EQ(flash_of(ACTIVE) == old_bios().bytes, true);
        expect_tidy(ACTIVE);
    }
    // The end that the transport reports in the place of a target that is gone.
    void expect_answered_for(requester &asking)
    {
        const auto begin = std::chrono::steady_clock::now();
        asking.await_end(seen_);
        EXPECT_LE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
        EXPECT_EQ(seen_.result, std::optional<std::uint32_t>(BIOS_ERR_NO_COMPLETION)) << seen_;
        EXPECT_EQ(seen_.module, std::optional<std::uint32_t>(TARGET));
        EXPECT_EQ(lines_with(ACTIVE, "MTS_OPC_BIOS_PROGRAMMING_DONE status=40710008"), 1U);
        EXPECT_EQ(locks_held(), held_locks());
        expect_tidy(ACTIVE);
    }
    bool daemon_serves(unsigned slot, pid_t other_than) const
    {
        return daemon_pid(slot) != 0 && daemon_pid(slot) != other_than &&
               file_content(slot_file(slot, "state")).starts_with("serving");
    }
    void expect_target_half_programmed() const
    {
        EXPECT_TRUE(is_marked(TARGET));
        std::string version;
        EXPECT_EQ(flash_version(TARGET, version), -61) << version;
        EXPECT_NE(flash_of(TARGET) == old_bios().bytes, true);
        EXPECT_NE(flash_of(TARGET) == new_bios().bytes, true);
    }
    // The process that keeps a card: with it everything on the card ends.
    pid_t keeper(unsigned slot) const
    {
        const unique_fd file(::open(slot_file(slot, "keeper").c_str(), O_RDWR | O_CLOEXEC));
        struct flock lock = {};
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        return ::fcntl(file.get(), F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK ? lock.l_pid : 0;
    }

    programming seen_;
};

} // namespace

// Progress is relayed meanwhile, and does not make the wait longer.
TEST_F(ForwardingTimeOut, EndsTheWaitForAModuleThatNeverReports)
{
    insert_supervisors(false);
    up();
    played_module target(chassis_directory(), TARGET);
    shorten_waits();
    requester asking;
    seen_ = asking.start(TARGET);
    ASSERT_TRUE(target.await_request(MTS_OPC_BIOS_PROGRAMMING_START));
    target.answer(0);
    const bios_programming_progress_t half{be32::of(BIOS_PHASE_WRITE), be32::of(50), be32::of(1)};
    constexpr std::size_t MESSAGES = 3;
    for (std::size_t i = 0; i < MESSAGES; ++i)
        ASSERT_TRUE(
            target.send(MTS_OPC_BIOS_PROGRAMMING_PROGRESS, {reinterpret_cast<const char *>(&half), sizeof half}));
    expect_given_up(asking);
    EXPECT_EQ(seen_.progress.size(), MESSAGES);

    EXPECT_FALSE(target.send_end(BIOS_OK)) << "an end that comes too late reaches nobody";
}

// It is given up after 1801 time-outs of the shipped build as well: this one only makes them come sooner.
TEST_F(ForwardingTimeOut, WaitsForWholeSecondsUnlessItIsTold)
{
    insert_supervisors(false);
    up();
    played_module target(chassis_directory(), TARGET);
    requester asking;
    seen_ = asking.start(TARGET);
    ASSERT_TRUE(target.await_request(MTS_OPC_BIOS_PROGRAMMING_START));
    const auto begin = std::chrono::steady_clock::now();
    target.answer(0);
    ASSERT_TRUE(wait_until([&] { return time_outs() >= 3; }));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(2900));
    ASSERT_TRUE(target.send_end(BIOS_OK));
    asking.await_end(seen_);
    EXPECT_EQ(seen_.result, std::optional<std::uint32_t>(BIOS_OK)) << seen_;
}

// Its child finishes its work, and the supervisor does not wait for what nobody will report.
TEST_F(ForwardingTimeOut, EndsTheWaitForATargetWhoseDaemonDies)
{
    insert_supervisors(true);
    up();
    requester asking;
    start_and_meet(asking);
    const pid_t targets_daemon = daemon_pid(TARGET);
    const pid_t targets_child = child_pid(TARGET);
    ASSERT_NE(targets_child, 0);

    ASSERT_EQ(::kill(targets_daemon, SIGKILL), 0);
    expect_answered_for(asking);
    EXPECT_EQ(::kill(targets_child, 0), 0) << "the child did not outlive its daemon";
    EXPECT_TRUE(is_marked(TARGET));

    ASSERT_TRUE(wait_until([&] { return daemon_serves(TARGET, targets_daemon); }));
    ASSERT_TRUE(wait_until([&] { return ::kill(targets_child, 0) != 0; }, std::chrono::seconds(60)));
    EXPECT_FALSE(is_marked(TARGET));
    EXPECT_EQ(flash_of(TARGET) == new_bios().bytes, true);
    expect_programmed(program(TARGET), TARGET, new_bios());
    EXPECT_EQ(locks_held(), held_locks());
}

// What an operator reads, and what the next one is told who asks while the target's child still writes.
TEST_F(ForwardingTimeOut, IsToldToTheOperatorWithTheProcessThatStillWrites)
{
    insert_supervisors(true);
    up();
    write_file(flash_file(TARGET, "timing"), "4\n");
    const std::string text = workspace() + "/program.txt";
    const pid_t operator_process = ::fork();
    if (operator_process == 0) {
        const finished_program told = biosctl({"program", "2"});
        write_file(text, std::to_string(told.exit_code) + "\n" + told.errors);
        ::_exit(0);
    }
    ASSERT_TRUE(wait_until([&] { return is_marked(TARGET); }));
    const pid_t targets_daemon = daemon_pid(TARGET);
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_EQ(::kill(targets_daemon, SIGKILL), 0);
    ASSERT_EQ(::waitpid(operator_process, nullptr, 0), operator_process);
    EXPECT_LE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
    const std::string told = file_content(text);
    EXPECT_TRUE(told.starts_with("1\n")) << told;
    for (const char *part :
         {"0x40710008", "the target's daemon ended, or nothing worked there for 30 seconds",
          " of slot 2, which has written its flash since ", "being programmed: do not reboot the card"})
        EXPECT_NE(told.find(part), std::string::npos) << part << " is not in: " << told;

    ASSERT_TRUE(is_marked(TARGET)) << "the flash is too fast for this test";
    ASSERT_TRUE(wait_until([&] { return daemon_serves(TARGET, targets_daemon); }));
    const finished_program next = biosctl({"program", "2"});
    EXPECT_EQ(next.exit_code, 4);
    EXPECT_NE(next.errors.find(" of slot 2, which has written its flash since "), std::string::npos) << next.errors;
    EXPECT_EQ(locks_held(), held_locks());
}

// A second request, which goes to the target directly, would take the place of the supervisor that waits.
TEST_F(ForwardingTimeOut, IsNotCausedByASecondRequestToTheTarget)
{
    insert_supervisors(true);
    up();
    requester asking;
    start_and_meet(asking);
    requester other;
    EXPECT_EQ(other.start(TARGET, {.via = TARGET}).answer, BIOS_ERR_BUSY);
    write_file(flash_file(TARGET, "timing"), "0\n");
    asking.await_end(seen_);
    expect_programmed(seen_, TARGET, new_bios());
}

// The child finishes its work behind a daemon that hangs; half a minute later its agent's word counts.
TEST_F(ForwardingTimeOut, EndsTheWaitForATargetWhoseDaemonHangs)
{
    insert_supervisors(true);
    up();
    requester asking;
    start_and_meet(asking);
    const pid_t targets_daemon = daemon_pid(TARGET);
    ASSERT_EQ(::kill(targets_daemon, SIGSTOP), 0);
    write_file(flash_file(TARGET, "timing"), "0\n");
    ASSERT_TRUE(wait_until([&] { return !is_marked(TARGET); }, std::chrono::seconds(60)));
    const auto begin = std::chrono::steady_clock::now();

    asking.await_end(seen_, std::chrono::seconds(45));
    EXPECT_LE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(35));
    EXPECT_EQ(seen_.result, std::optional<std::uint32_t>(BIOS_OK)) << seen_;
    EXPECT_TRUE(seen_.verified()) << seen_;
    EXPECT_EQ(flash_of(TARGET) == new_bios().bytes, true);
    EXPECT_EQ(locks_held(), held_locks());
    ASSERT_EQ(::kill(targets_daemon, SIGCONT), 0);
}

TEST_F(ForwardingTimeOut, EndsTheWaitForATargetThatIsGoneForGood)
{
    insert_supervisors(true);
    up();
    requester asking;
    start_and_meet(asking);
    const pid_t target = keeper(TARGET);
    const pid_t targets_daemon = daemon_pid(TARGET);
    ASSERT_NE(target, 0);

    ASSERT_EQ(::kill(target, SIGKILL), 0);
    ASSERT_TRUE(wait_until([&] { return ::kill(targets_daemon, 0) != 0; }));
    expect_answered_for(asking);
    expect_target_half_programmed();

    EXPECT_EQ(program(TARGET).result, std::optional<std::uint32_t>(BIOS_ERR_NOT_SENT));
    EXPECT_EQ(locks_held(), held_locks());
}
