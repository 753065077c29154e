// How the lab's programs run that have commands: what each does hangs at its parser's callbacks.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <sstream>

#include "standard_output.h"

constexpr int EXIT_USAGE = 64;

inline void parse_or_print_help(CLI::App &app, int argc, char **argv)
{
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success &asked) {
        std::ostringstream help;
        (void)app.exit(asked, help, help);
        print_output(help.str());
    }
}

// The exit status: 0 done, 1 failed, 64 wrong usage. What failed is printed behind the program's name.
inline int run_command_line(CLI::App &app, int argc, char **argv)
{
    try {
        parse_or_print_help(app, argc, argv);
    } catch (const CLI::ParseError &problem) {
        (void)app.exit(problem);
        return EXIT_USAGE;
    } catch (const std::exception &failure) {
        (void)std::fprintf(stderr, "%s: %s\n", app.get_name().c_str(), failure.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
