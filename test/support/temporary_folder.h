// A test's private folder below /tmp, which goes away with its object.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>
#include <unistd.h>

class temporary_folder
{
public:
    // A part of its name is the caller's, and tells people whose it is.
    explicit temporary_folder(const std::string &name) : path_("/tmp/" + name + ".XXXXXX")
    {
        if (::mkdtemp(path_.data()) == nullptr)
            throw std::runtime_error("mkdtemp");
    }
    temporary_folder(const temporary_folder &) = delete;
    temporary_folder &operator=(const temporary_folder &) = delete;
    ~temporary_folder()
    {
        std::error_code problem;
        std::filesystem::remove_all(path_, problem);
        EXPECT_FALSE(problem) << path_ << ": " << problem.message();
    }

    const std::string &path() const { return path_; }
    // Of what lies in it.
    std::string path(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_;
};
