// Fetching a file of a boot loader from a daemon. A request names how many bytes are wanted: a longer file is cut,
// a shorter one is answered with an error. So the length of a file is found by asking.
#pragma once

#include <cstdint>
#include <functional>

#include "loader_messages.h"

constexpr std::uint32_t LOADER_FILE_BYTES_MAX = 64U << 20;

// Asks for the first length bytes.
using file_request = std::function<file_answer(std::uint32_t length)>;

enum class file_search_end {
    found,
    failed,  // answer tells why: there is no such file, or asking went wrong on the way
    changed, // the file was not the same all the time
};

struct file_search {
    file_search_end end = file_search_end::found;
    file_answer answer = {}; // found: all of the file
    unsigned requests = 0;
    std::uint32_t beyond_status =
        0; // status for one byte more; 0: LOADER_FILE_BYTES_MAX bytes are there, maybe more
};

// Finds the whole file with at most 28 requests: none of it first, then by bisection up to LOADER_FILE_BYTES_MAX.
file_search find_whole_file(const file_request &request);
