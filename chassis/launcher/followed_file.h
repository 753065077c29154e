// Prints files of a chassis that others append to. All throw launcher_error.
#pragma once

#include <string>

#include "unique_fd.h"

// Prints a file below the chassis directory on standard output; follow: goes on with what is added, until the
// process is ended or the reader of standard output has gone. false: there is no such file.
[[nodiscard]] bool print_file(const std::string &path, bool follow);

// The lines that come from now on, of a file that need not be there yet and may be turned over meanwhile.
class added_lines
{
public:
    explicit added_lines(std::string path);

    // Prints them, as print_file does.
    void follow();

private:
    std::string path_;
    unique_fd file_; // at the end of what there was
};
