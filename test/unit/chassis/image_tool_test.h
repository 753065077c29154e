// Tests of the image tools as they were built, each test in a folder of its own.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <sys/wait.h>

#include "rest_of.h"
#include "temporary_folder.h"

inline std::string content_of(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file) << path;
    return rest_of(file);
}

inline void write_file(const std::string &path, const std::string &content)
{
    std::ofstream(path, std::ios::binary) << content;
}

inline std::string random_bytes(std::size_t length)
{
    std::mt19937 numbers(4700); // any contents that do not compress will do, the same each time
    std::string bytes(length, '\0');
    for (char &byte : bytes)
        byte = static_cast<char>(numbers());
    return bytes;
}

class image_tool_test : public testing::Test
{
protected:
    explicit image_tool_test(const std::string &name) : folder_(name) {}

    // Runs a tool with its arguments in the test's folder; names there need no quoting. Returns its exit code, or
    // -1 when it had none.
    int run(const std::string &tool, const std::string &input = "/dev/null") const
    {
        const std::filesystem::path programs = // beside the folder of the tests
            std::filesystem::read_symlink("/proc/self/exe").parent_path() / "../../bin";
        const std::string command = "cd " + folder_.path() + " && timeout 60 " + programs.string() + "/" + tool +
                                    " >output 2>errors <" + input;
        const int status = std::system(command.c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    // What the last one printed.
    std::string output() const { return content_of(path("output")); }
    std::string errors() const { return content_of(path("errors")); }

    std::string path(const std::string &name) const { return folder_.path(name); }

private:
    temporary_folder folder_;
};
