// Exit codes of biosctl. Fixed: scripts depend on them.
#pragma once

enum exit_code : int {
    EXIT_DONE = 0,          // the command did what was asked
    EXIT_FAILED = 1,        // it did not; the message says what the flash's state is
    EXIT_NOTHING_TO_DO = 2, // what was asked for was so already
    EXIT_NOT_FOUND = 3,     // no such chassis, module or file
    EXIT_BUSY = 4,          // a programming is in progress, or somebody else holds the lock
    EXIT_USAGE_ERROR = 64,  // the command line is not understood
    EXIT_INTERRUPTED = 130, // Ctrl-C while watching; the programming goes on
};

constexpr const char *EXIT_CODES_HELP = "Exit codes:\n"
                                        "  0    done\n"
                                        "  1    failed\n"
                                        "  2    nothing to do\n"
                                        "  3    no such chassis, module or file\n"
                                        "  4    busy or locked\n"
                                        "  64   usage error\n"
                                        "  130  interrupted; a programming goes on in the card\n";
