// Work of a test that is done in a process of its own.
#pragma once

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

// Exit status of a forked child that runs the body and ends with what it returns; -1 when it was killed.
template<typename Body>
int in_child(Body body)
{
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(body());
    int status = -1;
    EXPECT_EQ(child, ::waitpid(child, &status, 0));
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
