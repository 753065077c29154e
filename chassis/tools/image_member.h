// One member of an image, found by its name.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "image_archive.h"

constexpr unsigned MEMBER_MODE_BITS = 0755; // of a member's own; never set-user-id, never writable for everyone

// A regular file in an image. Links and devices are refused: an image comes from somewhere else, and what they lead
// to could be outside of the destination.
class image_member
{
public:
    // Finds the first member of that name, with or without its leading slash. Throws image_error when the image
    // cannot be read, has no such member, or the member is no regular file.
    image_member(const std::string &image, const std::string &name);

    const std::vector<std::string> &components() const { return components_; }
    unsigned mode() const { return mode_; }

    // Hands the contents over, piece by piece. Throws image_error when they are cut short or more than limit_mib.
    void copy(std::uint64_t limit_mib, const std::function<void(const void *, std::size_t)> &take);

private:
    std::string image_;
    std::string name_;
    std::vector<std::string> components_;
    archive_reader reader_;
    unsigned mode_ = 0;
};
