// The conformance kit: tells whether a platform library keeps what the headers of platform/ promise. Without an
// argument of its own it is a GoogleTest program; with "--peer" it is a process that the tests talk to. The
// argument
// "--time-limit=SECONDS" gives each test that time, after which a call that blocks ends the kit.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "contract_surroundings.h"
#include "contract_test.h"
#include "peer.h"
#include "watchdog.h"

namespace
{

class surroundings : public testing::Environment
{
public:
    void TearDown() override { contract_end(); }
};

constexpr int NO_SURROUNDINGS = 2;
constexpr int WRONG_USAGE = 64;
constexpr char TIME_LIMIT[] = "--time-limit=";

// What GoogleTest has left of the arguments. false for what the kit does not know.
bool parse_time_limit(int argc, char **argv, unsigned &time_limit_s)
{
    for (int i = 1; i < argc; ++i) {
        char *end = nullptr;
        if (std::strncmp(argv[i], TIME_LIMIT, sizeof TIME_LIMIT - 1) != 0)
            return false;
        const char *number = argv[i] + sizeof TIME_LIMIT - 1;
        time_limit_s = static_cast<unsigned>(std::strtoul(number, &end, 10));
        if (end == number || *end != '\0' || time_limit_s == 0)
            return false;
    }
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    const bool is_peer = argc > 1 && std::strcmp(argv[1], "--peer") == 0;
    if (!is_peer) {
        testing::InitGoogleTest(&argc, argv);
        unsigned time_limit_s = 0;
        if (!parse_time_limit(argc, argv, time_limit_s)) {
            std::fputs("usage: platform_contract [--time-limit=SECONDS] [--gtest_...]\n", stderr);
            return WRONG_USAGE;
        }
        if (GTEST_FLAG_GET(list_tests))
            return RUN_ALL_TESTS();
        testing::AddGlobalTestEnvironment(new surroundings);
        testing::UnitTest::GetInstance()->listeners().Append(new_watchdog(time_limit_s));
    }
    if (contract_begin(is_peer ? 1 : 0) != 0) {
        std::fputs("the surroundings of the contract cannot be prepared\n", stderr);
        return NO_SURROUNDINGS;
    }
    if (is_peer)
        return run_peer();
    note_foreign_descriptors();
    return RUN_ALL_TESTS();
}
