// The chassis of the chassis tests, for a benchmark: made by a call of up() and taken down with the object.
#pragma once

#include "chassis_fixture.h"

class bench_chassis : public chassis_test
{
public:
    bench_chassis() : chassis_test(daemon_build::shipped) {}
    ~bench_chassis() override { TearDown(); }

    using chassis_test::agent_pid;
    using chassis_test::biosctl;
    using chassis_test::biosctl_words;
    using chassis_test::card_file;
    using chassis_test::chassis;
    using chassis_test::chassis_directory;
    using chassis_test::child_pid;
    using chassis_test::daemon_pid;
    using chassis_test::flash_file;
    using chassis_test::flash_of;
    using chassis_test::insert;
    using chassis_test::is_marked;
    using chassis_test::log_of;
    using chassis_test::program;
    using chassis_test::slot_file;
    using chassis_test::up;
    using chassis_test::up_from;
    using chassis_test::workspace;

private:
    void TestBody() override {}
};
