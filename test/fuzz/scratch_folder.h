// A private folder that goes away with its object: in the folder that FUZZ_SCRATCH names, or in memory where there
// is a place for that. What a process that was aborted leaves behind is for whoever set FUZZ_SCRATCH to remove.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>
#include <unistd.h>

#include "fuzz_input.h"

class scratch_folder
{
public:
    scratch_folder()
    {
        const char *wanted = std::getenv("FUZZ_SCRATCH");
        path_ = wanted != nullptr ? wanted : ::access(IN_MEMORY, W_OK) == 0 ? IN_MEMORY : "/tmp";
        path_ += "/bios-fuzz-XXXXXX";
        require(::mkdtemp(path_.data()) != nullptr, "a private folder can be made");
    }
    scratch_folder(const scratch_folder &) = delete;
    scratch_folder &operator=(const scratch_folder &) = delete;
    ~scratch_folder()
    {
        std::error_code problem;
        std::filesystem::remove_all(path_, problem);
    }

    const std::string &path() const { return path_; }

private:
    static constexpr const char *IN_MEMORY = "/dev/shm";

    std::string path_;
};
