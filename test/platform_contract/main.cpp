// The conformance kit: tells whether a platform library keeps what the headers of platform/ promise. Without an
// argument of its own it is a GoogleTest program; with "--peer" it is a process that the tests talk to.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

#include "contract_surroundings.h"
#include "peer.h"

namespace
{

class surroundings : public testing::Environment
{
public:
    void TearDown() override { contract_end(); }
};

constexpr int NO_SURROUNDINGS = 2;

} // namespace

int main(int argc, char **argv)
{
    const bool is_peer = argc > 1 && std::strcmp(argv[1], "--peer") == 0;
    if (!is_peer) {
        testing::InitGoogleTest(&argc, argv);
        if (GTEST_FLAG_GET(list_tests))
            return RUN_ALL_TESTS();
        testing::AddGlobalTestEnvironment(new surroundings);
    }
    if (contract_begin(is_peer ? 1 : 0) != 0) {
        std::fputs("the surroundings of the contract cannot be prepared\n", stderr);
        return NO_SURROUNDINGS;
    }
    return is_peer ? run_peer() : RUN_ALL_TESTS();
}
