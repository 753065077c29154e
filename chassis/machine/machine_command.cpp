// machine_command: what the host does in a card that is a machine, over the socket agent.sock of its place.
//
//   machine_command SOCKET wait                        waits until the machine answers
//   machine_command SOCKET run COMMAND [ARGUMENT]...   runs a command in the machine and prints what it prints
//   machine_command SOCKET put PATH <FILE              writes a file of the machine
//   machine_command SOCKET get PATH >FILE              reads one
//
// Exit status: that of the command; 0 done, 69 the machine does not answer or has failed, 64 wrong usage.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

#include "command_line_run.h"
#include "guest_work.h"
#include "monotonic_clock.h"
#include "write_all.h"

namespace
{

constexpr int EXIT_MACHINE = 69;
constexpr std::int64_t ATTEMPT_US = 2 * MICROSECONDS;
constexpr useconds_t BETWEEN_ATTEMPTS_US = 100'000;

struct command_line {
    std::string socket;
    double limit_s = 60;
    bool takes_input = false;
    std::vector<std::string> command;
    std::string path;

    [[nodiscard]] std::int64_t limit_us() const { return static_cast<std::int64_t>(limit_s * MICROSECONDS); }
    [[nodiscard]] guest_channel channel() const { return {socket, limit_us()}; }
};

std::string read_input()
{
    std::string bytes;
    char piece[65536];
    ssize_t count = 0;
    while ((count = ::read(STDIN_FILENO, piece, sizeof piece)) > 0)
        bytes.append(piece, static_cast<std::size_t>(count));
    if (count < 0)
        throw guest_error("the input cannot be read");
    return bytes;
}

// A machine that starts has no socket at first, and no agent then: each attempt is a short one.
void wait_for_machine(const command_line &line)
{
    const std::int64_t deadline_us = monotonic_us() + line.limit_us();
    for (;;) {
        try {
            (void)guest_channel(line.socket, ATTEMPT_US).call("guest-ping");
            return;
        } catch (const guest_error &) {
            if (monotonic_us() >= deadline_us)
                throw;
        }
        (void)::usleep(BETWEEN_ATTEMPTS_US);
    }
}

int run_command(const command_line &line)
{
    guest_channel channel = line.channel();
    const guest_result result =
        run_in_guest(channel, line.command, line.takes_input ? read_input() : std::string());
    print_output(result.output);
    if (!write_all(STDERR_FILENO, result.errors.data(), result.errors.size()))
        throw_output_error();
    return result.status;
}

} // namespace

int main(int argc, char **argv)
{
    CLI::App app("Runs commands in a card that is a machine, and exchanges files with it.", "machine_command");
    app.require_subcommand(1);
    command_line line;
    int status = EXIT_SUCCESS;
    app.add_option("SOCKET", line.socket, "agent.sock of the machine's place")->required();
    app.add_option("--limit", line.limit_s, "Seconds that the machine may take")->capture_default_str();

    CLI::App *command = app.add_subcommand("wait", "Wait until the machine answers");
    command->callback([&] { wait_for_machine(line); });

    command = app.add_subcommand("run", "Run a command in the machine");
    command->add_flag("--input", line.takes_input, "Give it this program's standard input");
    command->prefix_command()->footer("COMMAND [ARGUMENT]... stands behind the options.");
    command->callback([&, command] {
        line.command = command->remaining();
        if (line.command.empty())
            throw CLI::RequiredError("COMMAND");
        status = run_command(line);
    });

    command = app.add_subcommand("put", "Write a file of the machine, from standard input");
    command->add_option("PATH", line.path, "The file in the machine")->required();
    command->callback([&] {
        guest_channel channel = line.channel();
        put_guest_file(channel, line.path, read_input());
    });

    command = app.add_subcommand("get", "Read a file of the machine, to standard output");
    command->add_option("PATH", line.path, "The file in the machine")->required();
    command->callback([&] {
        guest_channel channel = line.channel();
        print_output(get_guest_file(channel, line.path));
    });

    const int outcome = run_command_line(app, argc, argv);
    if (outcome == EXIT_FAILURE)
        return EXIT_MACHINE;
    return outcome == EXIT_SUCCESS ? status : outcome;
}
