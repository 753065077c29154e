// The module that is meant on the tarvik-a supervisors.
#include "tarvik_a_override.h"

#include "daemon_test.h"

namespace
{

using TarvikAOverride = daemon_test;

TEST_F(TarvikAOverride, MeansModule18WhateverIsAskedFor)
{
    EXPECT_EQ(override_module_num(316, 3, 5), 18u);
    EXPECT_EQ(platform().logs(), (lines{"main: *** tarvik-a hack: sup_id=316, module_num=3, my_module_num=5",
                                        "main: *** tarvik-a hack: setting module_num to 18"}));
    for (const std::uint32_t module : {0u, 18u, 233u, 0xffffffffu})
        EXPECT_EQ(override_module_num(183, module, 5), 18u);
}

} // namespace
