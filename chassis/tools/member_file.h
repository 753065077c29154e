// The file that a member of an image becomes: below a folder, never outside of it, and complete or not there.
#pragma once

#include <string>
#include <vector>

#include "unique_fd.h"

// Splits a member's name into its components: leading and doubled slashes and "." are left out. Throws
// image_error for a name that is empty, has a ".." component or a control character.
std::vector<std::string> member_components(const std::string &name);

// A member while it is being written. It has a temporary name in the destination folder until commit(); a file
// that was not committed is removed by the destructor.
class member_file
{
public:
    // Opens the destination folder and creates the temporary file in it. Throws image_error.
    explicit member_file(const std::string &destination);
    // Likewise in a folder that is open already; destination tells its name in errors.
    member_file(unique_fd folder, const std::string &destination);
    member_file(const member_file &) = delete;
    member_file &operator=(const member_file &) = delete;
    ~member_file();

    // Appends to the file. Throws image_error.
    void append(const void *bytes, std::size_t length);

    // Gives the file its mode and its name below the destination folder. Folders that are missing on the way
    // are made; a link on the way is refused, and one that has the file's own name is replaced, not followed.
    // Throws image_error.
    void commit(const std::vector<std::string> &components, unsigned mode);

private:
    unique_fd folder_;
    unique_fd file_;
    std::string temporary_name_;
};
