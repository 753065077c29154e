// The primary flash of a card in a chassis directory of its own, programmed by processes that are timed.
#pragma once

#include <string>

#include "flash_wear.h"
#include "test_images.h"
#include "timed_process.h"

// Waits until nothing of a file's file system is unwritten: what one side leaves to be written is not to be waited
// for by the other.
void settle_disk(const std::string &path);

// Throws std::runtime_error when a file does not hold the image.
void expect_content(const std::string &path, const test_image &wanted);

// Copies an image over a file, and waits for the disk as the flash service waits for its flash; milliseconds.
// Throws unless the file then holds the image.
double copy_ms(const test_image &copied, const std::string &destination);

class bench_flash
{
public:
    // contents: what is in the flash at first; the flash has its size
    explicit bench_flash(const test_image &contents);

    // Programs the flash with an image of its size; milliseconds. Throws unless it then equals the image.
    double program_ms(const test_image &image) const;

    flash_wear wear() const; // so far

private:
    bench_folder folder_;
};
