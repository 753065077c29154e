// How long a request takes beyond the pauses that the procedure requires. Runs alone: the machine's load counts.
#include <cstdio>

#include "chassis_fixture.h"

namespace
{

constexpr unsigned FLASH_KIB = 8 * 1024;
constexpr double EXTRACTION_PAUSE_S = 2;
constexpr double EXIT_PAUSE_S = 5;
constexpr double RECEIVE_WAIT_S = 1; // the daemon looks for its child's end once in this time
constexpr double WORK_S = 1;

class ProgrammingTime : public chassis_test
{
protected:
    ProgrammingTime() : chassis_test(daemon_build::shipped) {}
};

} // namespace

TEST_F(ProgrammingTime, OfEightMebibytesIsLittleMoreThanTheRequiredPauses)
{
    const test_image &wanted = image("2.5", FLASH_KIB);
    insert({.slot = 1,
            .in_flash = &image("1.2", FLASH_KIB),
            .in_tree = &wanted,
            .flash_kib = FLASH_KIB,
            .sector_kib = 64});
    up();

    const programming seen = program(1);

    expect_programmed(seen, 1, wanted);
    expect_tidy(1);
    const double elapsed_s = seen.elapsed.count();
    std::printf("8 MiB, every sector different: %.2f s, of which %.0f s are required pauses\n", elapsed_s,
                EXTRACTION_PAUSE_S + EXIT_PAUSE_S);
    EXPECT_GE(elapsed_s, EXTRACTION_PAUSE_S + EXIT_PAUSE_S);
    EXPECT_LE(elapsed_s, EXTRACTION_PAUSE_S + EXIT_PAUSE_S + RECEIVE_WAIT_S + WORK_S);
}
