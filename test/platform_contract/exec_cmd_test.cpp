// platform/exec_cmd.h: command lines run through the shell and waited for.
#include "exec_cmd.h"

#include <csignal>
#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>

#include "contract_test.h"

namespace
{

struct close_stream {
    void operator()(FILE *stream) const { (void)std::fclose(stream); }
};
using owned_stream = std::unique_ptr<FILE, close_stream>;

owned_stream opened(const scratch_file &file, const char *mode)
{
    return owned_stream(std::fopen(file.path(), mode));
}

std::int32_t run(const std::string &command, FILE *input = nullptr, FILE *output = nullptr, FILE *error = nullptr)
{
    return exec_cmd_with_io_print(command.c_str(), input, output, error, 0);
}

std::int32_t run_with_files(const std::string &command, const char *input, const char *output, const char *error)
{
    errno = 0;
    return exec_cmd_with_files_print(command.c_str(), input, output, error, 0);
}

} // namespace

TEST(ExecCmdWithIoPrint, Returns0WhenTheCommandEndsWithStatus0)
{
    EXPECT_EQ(run("true"), 0);
}

TEST(ExecCmdWithIoPrint, ReturnsTheWaitStatusOfAnotherEnd)
{
    const std::int32_t exited = run("exit 3");
    EXPECT_TRUE(WIFEXITED(exited));
    EXPECT_EQ(WEXITSTATUS(exited), 3);
    const std::int32_t killed = run("kill -9 $$");
    EXPECT_TRUE(WIFSIGNALED(killed));
    EXPECT_EQ(WTERMSIG(killed), SIGKILL);
}

TEST(ExecCmdWithIoPrint, RunsTheCommandLineThroughTheShell)
{
    const scratch_file result("result");
    EXPECT_EQ(run("word=shell; echo \"$word $((40 + 2))\" | cat > " + std::string(result.path())), 0);
    EXPECT_EQ(result.content(), "shell 42\n");
}

TEST(ExecCmdWithIoPrint, RunsACommandLineOfAnyLength)
{
    const scratch_file result("result");
    const std::string text(3000, 'l');
    EXPECT_EQ(run("echo " + text + " > " + result.path()), 0);
    EXPECT_EQ(result.content(), text + "\n");
}

TEST(ExecCmdWithIoPrint, HasWaitedForTheCommandWhenItReturns)
{
    const scratch_file result("result");
    EXPECT_EQ(run("sleep 0.3; echo done > " + std::string(result.path())), 0);
    EXPECT_EQ(result.content(), "done\n");
}

TEST(ExecCmdWithIoPrint, GivesTheCommandTheStreams)
{
    const scratch_file input_file("input", "from the input\n");
    const scratch_file output_file("output");
    const scratch_file error_file("error");
    {
        const owned_stream input = opened(input_file, "r");
        const owned_stream output = opened(output_file, "w");
        const owned_stream error = opened(error_file, "w");
        EXPECT_EQ(run("cat; echo to the error >&2", input.get(), output.get(), error.get()), 0);
    }
    EXPECT_EQ(output_file.content(), "from the input\n");
    EXPECT_EQ(error_file.content(), "to the error\n");
}

TEST(ExecCmdWithIoPrint, LeavesTheProcesssOwnStreamsForNull)
{
    const scratch_file output_file("output");
    EXPECT_EQ(exit_status_of_child([&] {
                  const owned_stream output = opened(output_file, "w");
                  ::dup2(::fileno(output.get()), STDOUT_FILENO);
                  return run("echo own stream");
              }),
              0);
    EXPECT_EQ(output_file.content(), "own stream\n");
}

TEST(ExecCmdWithIoPrint, ClosesAStreamForTheCommandWhoseDescriptorIsClosed)
{
    for (const bool standard : {true, false}) {
        const scratch_file result("result");
        const std::string look = "[ -e /proc/$$/fd/1 ] && state=open || state=closed; echo $state > ";
        EXPECT_EQ(exit_status_of_child([&] {
                      FILE *output = standard ? stdout : std::tmpfile();
                      ::close(::fileno(output));
                      return run(look + result.path(), stdin, output, stderr);
                  }),
                  0);
        EXPECT_EQ(result.content(), "closed\n") << (standard ? "stdout" : "another stream");
    }
}

TEST(ExecCmdWithIoPrint, LeavesOtherChildrenForTheCallerToReap)
{
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(7);
    EXPECT_EQ(run("sleep 0.3"), 0);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 7);
}

TEST(ExecCmdWithFilesPrint, ConnectsTheStreamsWithTheFiles)
{
    const scratch_file input("input", "content\n");
    const scratch_file output("output");
    const scratch_file error("error");
    EXPECT_EQ(run_with_files("cat; echo to the error >&2", input.path(), output.path(), error.path()), 0);
    EXPECT_EQ(output.content(), "content\n");
    EXPECT_EQ(error.content(), "to the error\n");
}

TEST(ExecCmdWithFilesPrint, TruncatesAnOutputThatIsThere)
{
    const scratch_file output("output", "what was there before, and is longer\n");
    EXPECT_EQ(run_with_files("echo new", nullptr, output.path(), nullptr), 0);
    EXPECT_EQ(output.content(), "new\n");
}

TEST(ExecCmdWithFilesPrint, GivesNoInputForNull)
{
    const scratch_file output("output");
    EXPECT_EQ(run_with_files("cat; echo end", nullptr, output.path(), nullptr), 0);
    EXPECT_EQ(output.content(), "end\n");
}

TEST(ExecCmdWithFilesPrint, LeavesTheProcesssOwnOutputsForNull)
{
    const scratch_file output_file("output");
    EXPECT_EQ(exit_status_of_child([&] {
                  const owned_stream output = opened(output_file, "w");
                  ::dup2(::fileno(output.get()), STDOUT_FILENO);
                  ::dup2(::fileno(output.get()), STDERR_FILENO);
                  return run_with_files("echo one; echo two >&2", nullptr, nullptr, nullptr);
              }),
              0);
    EXPECT_EQ(output_file.content(), "one\ntwo\n");
}

TEST(ExecCmdWithFilesPrint, ReturnsTheWaitStatusOfAnotherEnd)
{
    const std::int32_t exited = run_with_files("exit 4", nullptr, nullptr, nullptr);
    EXPECT_TRUE(WIFEXITED(exited));
    EXPECT_EQ(WEXITSTATUS(exited), 4);
}

TEST(ExecCmdWithFilesPrint, FailsWithErrnoWhenAFileCannotBeOpened)
{
    const scratch_file missing("missing");
    const scratch_file mark("mark");
    EXPECT_EQ(run_with_files("echo run > " + std::string(mark.path()), missing.path(), nullptr, nullptr), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(run_with_files("true", nullptr, (missing.path() + std::string("/x")).c_str(), nullptr), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(mark.content(), "") << "the command was run";
}
