// Transport node ids of other modules' daemons.
#include "module_node.h"

#include <cerrno>

#include "daemon_test.h"

namespace
{

using ModuleNode = daemon_test;

TEST_F(ModuleNode, IsTimes256Plus1OnSupervisorsOfEitherKind)
{
    platform().insert_module(5, 1, 30);
    platform().insert_module(6, 4, 30);
    EXPECT_EQ(get_nodeid_for_module(7, 5), 0x501u);
    EXPECT_EQ(get_nodeid_for_module(7, 6), 0x601u);
}

TEST_F(ModuleNode, IsTimes256Plus2OnEveryOtherKind)
{
    for (const int kind : {0, 2, 3, 5, 255}) {
        platform().insert_module(9, static_cast<std::uint8_t>(kind), 30);
        EXPECT_EQ(get_nodeid_for_module(7, 9), 0x902u) << "kind " << kind;
    }
}

TEST_F(ModuleNode, AsksForTheRecordsOfAll232Modules)
{
    (void)get_nodeid_for_module(7, 5);
    EXPECT_EQ(platform().calls("pfm_get_all_modules_in_chassis"), lines{"pfm_get_all_modules_in_chassis(7, 232)"});
}

TEST_F(ModuleNode, Is0WhenTheRecordsCannotBeRead)
{
    platform().insert_module(5, 1, 30);
    platform().next_result("pfm_get_all_modules_in_chassis", {-1, EIO});
    EXPECT_EQ(get_nodeid_for_module(7, 5), 0u);
}

TEST_F(ModuleNode, TakesAnyResultThatIsNotNegativeForSuccess)
{
    platform().insert_module(5, 1, 30);
    platform().next_result("pfm_get_all_modules_in_chassis", {12, 0});
    EXPECT_EQ(get_nodeid_for_module(7, 5), 0x501u);
}

TEST_F(ModuleNode, ReadsTheFirstAndTheLastRecord)
{
    platform().insert_module(1, 1, 30);
    platform().insert_module(232, 4, 30);
    EXPECT_EQ(get_nodeid_for_module(7, 1), 0x101u);
    EXPECT_EQ(get_nodeid_for_module(7, 232), 0xe801u);
}

TEST_F(ModuleNode, Is0ForANumberThatNoModuleHas)
{
    for (const std::uint32_t module : {0u, 233u, 256u, 0x101u, 0x10005u, 0x7fffffffu, 0x80000000u, 0xffffffffu})
        EXPECT_EQ(get_nodeid_for_module(7, module), 0u) << module;
}

} // namespace
