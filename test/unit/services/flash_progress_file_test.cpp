// The file that tells watchers how far a flash's programming is: its line, and what is made of anything else.
#include <fcntl.h>
#include <sys/prctl.h>

#include "file_size_limit.h"
#include "flash_fixture.h"
#include "flash_progress_file.h"

namespace
{

const flash_progress_line SOME_LINE = {
    .phase = BIOS_PHASE_WRITE, .percent = 43, .attempt = 2, .pid = 41, .since = "2026-01-31T23:59:59Z"};

constexpr std::size_t LINE_BYTES = 56;

// A process that notes progress as the programming child does, and stays until it is told to go on.
class noting_process
{
public:
    explicit noting_process(const std::function<void()> &work)
    {
        if (::pipe(up_) != 0 || ::pipe(end_) != 0)
            throw std::runtime_error("pipe");
        pid_ = ::fork();
        if (pid_ == 0) {
            (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
            work();
            (void)!::write(up_[1], "u", 1);
            ::pause();
            ::_exit(0);
        }
        char byte = 0;
        EXPECT_EQ(::read(up_[0], &byte, 1), 1);
    }
    ~noting_process() { kill(); }
    noting_process(const noting_process &) = delete;
    noting_process &operator=(const noting_process &) = delete;

    void kill()
    {
        if (pid_ <= 0)
            return;
        (void)::kill(pid_, SIGKILL);
        (void)::waitpid(pid_, nullptr, 0);
        pid_ = -1;
        for (const int fd : {up_[0], up_[1], end_[0], end_[1]})
            ::close(fd);
    }
    pid_t pid() const { return pid_; }

private:
    int up_[2] = {-1, -1};
    int end_[2] = {-1, -1};
    pid_t pid_ = -1;
};

class ProgressFile : public chassis_flash_fixture
{
protected:
    void SetUp() override
    {
        chassis_flash_fixture::SetUp();
        create_flash();
    }
    static void note(bios_programming_phase phase, std::uint32_t percent, std::uint32_t attempt,
                     unsigned instance = 0)
    {
        flash_progress_note(TEST_SLOT, instance, phase, percent, attempt);
    }
    static flash_activity activity(unsigned instance = 0) { return flash_activity_of(TEST_SLOT, instance); }
};

} // namespace

TEST(ProgressLine, HasAFixedForm)
{
    const std::string text = flash_progress_format(SOME_LINE);
    EXPECT_EQ(text.substr(0, 47), "write   43   2         41 2026-01-31T23:59:59Z ");
    EXPECT_EQ(text.size(), LINE_BYTES);
    EXPECT_EQ(text.back(), '\n');
    EXPECT_EQ(flash_progress_parse(text), SOME_LINE);
}

TEST(ProgressLine, KeepsItsLengthForEveryValue)
{
    for (const auto phase : {BIOS_PHASE_ERASE, BIOS_PHASE_WRITE, BIOS_PHASE_VERIFY}) {
        for (const std::uint32_t percent : {0U, 9U, 100U}) {
            for (const std::uint32_t attempt : {0U, 1U, FLASH_PROGRESS_ATTEMPT_MAX}) {
                for (const std::uint32_t pid : {1U, UINT32_MAX}) {
                    const flash_progress_line line = {phase, percent, attempt, pid, SOME_LINE.since};
                    const std::string text = flash_progress_format(line);
                    EXPECT_EQ(text.size(), LINE_BYTES) << text;
                    EXPECT_EQ(flash_progress_parse(text), line) << text;
                }
            }
        }
    }
    flash_progress_line many = SOME_LINE;
    many.attempt = 4'000'000'000;
    EXPECT_EQ(flash_progress_parse(flash_progress_format(many))->attempt, FLASH_PROGRESS_ATTEMPT_MAX);
}

TEST(ProgressLine, IsNotMadeOutOfAnythingElse)
{
    const std::string good = flash_progress_format(SOME_LINE);
    for (std::size_t place = 0; place + 1 < good.size(); ++place) {
        std::string changed = good;
        changed[place] = changed[place] == '1' ? '2' : '1';
        EXPECT_EQ(flash_progress_parse(changed), std::nullopt) << changed;
    }
    for (std::size_t length = 0; length < good.size(); ++length)
        EXPECT_EQ(flash_progress_parse(good.substr(0, length)), std::nullopt) << length;
    EXPECT_EQ(flash_progress_parse(good + "\n"), std::nullopt);
    EXPECT_EQ(flash_progress_parse(std::string(LINE_BYTES, '\0')), std::nullopt);
    EXPECT_EQ(flash_progress_parse(std::string(LINE_BYTES, 'x')), std::nullopt);
    EXPECT_EQ(flash_progress_parse(good.substr(0, 20) + flash_progress_format({}).substr(20)), std::nullopt);
}

TEST_F(ProgressFile, TellsNothingBeforeTheFirstProgramming)
{
    EXPECT_EQ(activity(), flash_activity{});
    EXPECT_EQ(activity(1), flash_activity{}) << "there is no such flash";
}

TEST_F(ProgressFile, TellsOfTheWriterUntilItEnds)
{
    noting_process child([&] {
        note(BIOS_PHASE_ERASE, 7, 1);
        note(BIOS_PHASE_WRITE, 68, 3);
    });
    const flash_activity running = activity();
    EXPECT_TRUE(running.has_writer);
    ASSERT_TRUE(running.last);
    EXPECT_EQ(running.last->phase, BIOS_PHASE_WRITE);
    EXPECT_EQ(running.last->percent, 68U);
    EXPECT_EQ(running.last->attempt, 3U);
    EXPECT_EQ(running.last->pid, static_cast<std::uint32_t>(child.pid()));
    EXPECT_EQ(activity(), running) << "looking has taken the lock away";

    child.kill();
    const flash_activity left = activity();
    EXPECT_FALSE(left.has_writer);
    EXPECT_EQ(left.last, running.last);
}

TEST_F(ProgressFile, TellsOfAWriterThatHasNotNotedAnything)
{
    noting_process child([&] { (void)open_flash().release(); }); // open until the process ends
    EXPECT_TRUE(activity().has_writer);
    EXPECT_EQ(activity().last, std::nullopt);
    child.kill();
    EXPECT_FALSE(activity().has_writer);
}

TEST_F(ProgressFile, HoldsTheLineOfTheLatestWriter)
{
    noting_process first([&] { note(BIOS_PHASE_VERIFY, 100, 1); });
    noting_process second([&] { note(BIOS_PHASE_ERASE, 3, 1); });
    EXPECT_EQ(activity().last->percent, 3U);
    first.kill();
    second.kill();
    EXPECT_FALSE(activity().has_writer);
}

TEST_F(ProgressFile, IsOfOneFlash)
{
    create_flash(1);
    noting_process child([&] { note(BIOS_PHASE_WRITE, 50, 1, 1); });
    EXPECT_TRUE(activity(1).has_writer);
    EXPECT_FALSE(activity(0).has_writer);
    EXPECT_EQ(activity(0).last, std::nullopt);
}

TEST_F(ProgressFile, TellsOfTheMarker)
{
    write_flash_file("programming", "");
    EXPECT_TRUE(activity().marked);
    EXPECT_FALSE(activity().has_writer);
}

TEST_F(ProgressFile, GarbageIsNoLineAndIsWrittenOver)
{
    for (const std::size_t bytes : {std::size_t{0}, std::size_t{10}, LINE_BYTES, std::size_t{1} << 20}) {
        write_flash_file("progress", std::string(bytes, 'g'));
        EXPECT_EQ(activity().last, std::nullopt) << bytes;
        EXPECT_FALSE(activity().has_writer) << bytes;
        noting_process child([&] { note(BIOS_PHASE_WRITE, 12, 1); });
        ASSERT_TRUE(activity().last) << bytes;
        EXPECT_EQ(activity().last->percent, 12U);
        EXPECT_EQ(text_of_flash_file("progress").size(), LINE_BYTES);
    }
}

TEST_F(ProgressFile, WhatIsNoFileIsLeftAlone)
{
    const std::string elsewhere = file_of("elsewhere", random_bytes(100));
    std::filesystem::create_symlink(elsewhere, flash_file("progress"));
    EXPECT_EQ(status_of_child([&] {
                  note(BIOS_PHASE_WRITE, 12, 1);
                  return 0;
              }),
              0);
    EXPECT_EQ(std::filesystem::file_size(elsewhere), 100U);
    EXPECT_EQ(activity().last, std::nullopt);

    std::filesystem::remove(flash_file("progress"));
    ASSERT_EQ(::mkfifo(flash_file("progress").c_str(), 0600), 0);
    EXPECT_EQ(status_of_child([&] {
                  note(BIOS_PHASE_WRITE, 12, 1);
                  return 0;
              }),
              0);
    EXPECT_EQ(activity().last, std::nullopt);

    std::filesystem::remove(flash_file("progress"));
    std::filesystem::create_directory(flash_file("progress"));
    EXPECT_EQ(status_of_child([&] {
                  note(BIOS_PHASE_WRITE, 12, 1);
                  return 0;
              }),
              0);
    EXPECT_EQ(activity().last, std::nullopt);
}

TEST_F(ProgressFile, KeepsErrnoAndTakesAnyInstance)
{
    const auto keeps_errno = [](unsigned instance) {
        errno = EXDEV;
        note(BIOS_PHASE_WRITE, 12, 1, instance);
        return errno == EXDEV ? 0 : 1;
    };
    EXPECT_EQ(status_of_child([&] { return keeps_errno(0); }), 0);
    EXPECT_EQ(status_of_child([&] { return keeps_errno(7); }), 0);
    std::filesystem::remove_all(dir);
    EXPECT_EQ(status_of_child([&] { return keeps_errno(0); }), 0);
}

// A reader beside a writer that never pauses sees whole lines only.
TEST_F(ProgressFile, IsNeverSeenInHalves)
{
    noting_process child([&] {
        note(BIOS_PHASE_ERASE, 11, 111);
        const pid_t writer = ::fork();
        if (writer != 0)
            return;
        (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (;;) {
            note(BIOS_PHASE_ERASE, 11, 111);
            note(BIOS_PHASE_VERIFY, 99, 999);
        }
    });
    unsigned seen = 0;
    for (unsigned look = 0; look < 20000; ++look) {
        const auto line = activity().last;
        if (!line)
            continue; // torn each time it was read
        ++seen;
        ASSERT_EQ(line->percent, line->phase == BIOS_PHASE_ERASE ? 11U : 99U);
        ASSERT_EQ(line->attempt, line->phase == BIOS_PHASE_ERASE ? 111U : 999U);
    }
    EXPECT_GT(seen, 1000U);
}

TEST_F(ProgressFile, ALineThatCannotBeWrittenLeavesNoneOfAnEarlierProgramming)
{
    {
        const noting_process earlier([] { flash_progress_note(TEST_SLOT, 0, BIOS_PHASE_VERIFY, 100, 1); });
    }
    ASSERT_TRUE(flash_activity_of(TEST_SLOT, 0).last);
    const noting_process writer([] {
        const file_size_limit full(0);
        flash_progress_note(TEST_SLOT, 0, BIOS_PHASE_ERASE, 0, 1);
    });
    EXPECT_TRUE(flash_activity_of(TEST_SLOT, 0).has_writer);
    EXPECT_FALSE(flash_activity_of(TEST_SLOT, 0).last);
}
