// A file that is written whole or not at all: whoever reads its path meanwhile finds the old file or the new one.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

// errno of why a file cannot be written there, 0 when nothing is known against it. EEXIST when it is there and must
// not be replaced.
int check_output_file(const std::string &path, bool overwrite);

class temporary_file;

// A file that grows beside its place. Without finish, nothing of it is left.
class output_file
{
public:
    explicit output_file(std::string path);
    ~output_file();
    output_file(const output_file &) = delete;
    output_file &operator=(const output_file &) = delete;

    // Each: 0, or the errno of what failed, now or before.
    int write(std::span<const std::uint8_t> bytes);
    int finish(bool overwrite); // gives the file its name, on the disk; else the place is as it was

private:
    std::string path_;
    std::unique_ptr<temporary_file> file_;
    int error_ = 0;
};

// All of it at once. 0, or the errno of what failed; then the place is as it was.
int write_output_file(const std::string &path, std::span<const std::uint8_t> content, bool overwrite);
