// Progress as text.
#include <algorithm>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>

#include "progress_bar.h"
#include "unique_fd.h"

namespace
{
constexpr progress_state HALF{.seen = true, .phase = 2, .percent = 50, .attempt = 1};
}

TEST(ProgressBar, ShowsPhasePercentAttemptAndTime)
{
    EXPECT_EQ(progress_bar_text("module 5", HALF, 7, 63),
              "module 5: [########.........]  50% writing, attempt 1, 00:07");
}

TEST(ProgressBar, IsFullAtOneHundredAndEmptyAtZero)
{
    EXPECT_EQ(progress_bar_text("m", {true, 3, 100, 2}, 61, 59),
              "m: [###################] 100% verified, attempt 2, 01:01");
    EXPECT_EQ(progress_bar_text("m", {true, 1, 0, 1}, 0, 59),
              "m: [....................]   0% erasing, attempt 1, 00:00");
}

TEST(ProgressBar, NeverReachesTheLastColumn)
{
    for (unsigned columns = 0; columns <= 300; ++columns) {
        const std::string text = progress_bar_text("module 5", HALF, 7, columns);
        EXPECT_LE(text.size() + 3, std::max(columns, 3U)) << text; // "^C", and the last column
    }
}

TEST(ProgressBar, DropsTheBarBeforeTheText)
{
    EXPECT_EQ(progress_bar_text("module 5", HALF, 7, 48), "module 5:  50% writing, attempt 1, 00:07");
    EXPECT_EQ(progress_bar_text("module 5", HALF, 7, 22), "module 5:  50% writ");
    EXPECT_EQ(progress_bar_text("module 232", {true, 3, 99, 12}, 3599, 40), "module 232:  99% verifying #12 59:59");
    EXPECT_EQ(progress_bar_text("module 232", {}, 3599, 40), "module 232:   0% waiting 59:59");
}

TEST(ProgressBar, SaysThatItWaitsBeforeTheFirstMessage)
{
    EXPECT_EQ(progress_bar_text("m", {}, 3, 50), "m:   0% waiting for the first progress, 00:03");
}

TEST(ProgressLines, OneForEachTenPercent)
{
    progress_lines lines("module 5");
    int count = 0;
    for (std::uint32_t percent = 0; percent <= 100; ++percent)
        count += lines.next({true, 2, percent, 1}, 0).has_value() ? 1 : 0;
    EXPECT_EQ(count, 11);
}

TEST(ProgressLines, NothingBeforeTheFirstMessageAndNothingTwice)
{
    progress_lines lines("module 5");
    EXPECT_FALSE(lines.next({}, 1));
    EXPECT_EQ(lines.next(HALF, 7), "module 5: 50% writing, attempt 1, 00:07");
    EXPECT_FALSE(lines.next(HALF, 8));
}

TEST(ProgressLines, ANewAttemptIsWorthALine)
{
    progress_lines lines("module 5");
    (void)lines.next(HALF, 7);
    EXPECT_EQ(lines.next({true, 1, 50, 2}, 9), "module 5: 50% erasing, attempt 2, 00:09");
}

TEST(ProgressView, WritesPlainLinesWhereThereIsNoTerminal)
{
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    unique_fd reader(ends[0]);
    unique_fd writer(ends[1]);
    {
        progress_view view(writer.get(), "module 5");
        view.show({}, 0);
        view.show(HALF, 7);
        view.show(HALF, 8);
    }
    writer.reset();
    char text[256] = {};
    ASSERT_GT(::read(reader.get(), text, sizeof text - 1), 0);
    EXPECT_STREQ(text, "module 5: 50% writing, attempt 1, 00:07\n");
}

TEST(ProgressView, DrawsOverItselfOnATerminalAndEndsTheLine)
{
    const unique_fd terminal(::posix_openpt(O_RDWR | O_NOCTTY));
    ASSERT_TRUE(terminal);
    ASSERT_EQ(::grantpt(terminal.get()), 0);
    ASSERT_EQ(::unlockpt(terminal.get()), 0);
    const unique_fd screen(::open(::ptsname(terminal.get()), O_RDWR | O_NOCTTY));
    ASSERT_TRUE(screen);
    {
        progress_view view(screen.get(), "m");
        view.show(HALF, 7);
    }
    std::string text;
    pollfd readable{terminal.get(), POLLIN, 0};
    while (text.find('\n') == std::string::npos && ::poll(&readable, 1, 10'000) == 1) {
        char piece[256];
        const ssize_t got = ::read(terminal.get(), piece, sizeof piece);
        ASSERT_GT(got, 0);
        text.append(piece, static_cast<std::size_t>(got));
    }
    EXPECT_TRUE(text.starts_with("\rm: [####")) << text;
    EXPECT_NE(text.find("]  50% writing"), std::string::npos) << text;
    EXPECT_TRUE(text.ends_with("\n")) << text;
}

TEST(ElapsedText, CountsHoursOnlyWhenThereAreAny)
{
    EXPECT_EQ(elapsed_text(0), "00:00");
    EXPECT_EQ(elapsed_text(754), "12:34");
    EXPECT_EQ(elapsed_text(3723), "1:02:03");
}

TEST(PhaseText, AnUnknownPhaseIsWork)
{
    EXPECT_STREQ(phase_text(1), "erasing");
    EXPECT_STREQ(phase_text(2), "writing");
    EXPECT_STREQ(phase_text(3), "verifying");
    EXPECT_STREQ(work_text(3, 99), "verifying");
    EXPECT_STREQ(work_text(3, 100), "verified");
    EXPECT_STREQ(work_text(2, 100), "writing");
    EXPECT_STREQ(phase_text(0), "working");
    EXPECT_STREQ(phase_text(0xffffffff), "working");
}
