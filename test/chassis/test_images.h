// BIOS images and system images, made by the chassis's own tool. Made once for each test program; their files go
// when it ends.
#pragma once

#include <string>
#include <vector>

struct test_image {
    std::string path;
    std::string bytes;
    std::string version; // as the daemon tells it: "  v2.5.0(05/06/24)"
};

constexpr unsigned SMALL_FLASH_KIB = 256; // so that a test does not take longer than the daemon's pauses

// An image of a version. Its bytes are random, so that no part of it is like a part of another image; the same for
// the same arguments.
const test_image &image(const std::string &version, unsigned size_kib = SMALL_FLASH_KIB);

const test_image &old_image(); // 1.2, what is in the flash
const test_image &new_image(); // 2.5, what is to be programmed

// Name of the compressed image in the image tree for a card id; only for the card ids of these tests.
std::string shipped_name(unsigned card_id);

// Makes FOLDER/vesk/bin with an image for a card id.
void make_image_tree(const std::string &folder, unsigned card_id, const test_image &shipped);

// Likewise with several images, by their names in the tree.
struct shipped_image {
    std::string name;
    const test_image *image;
};
void make_image_tree(const std::string &folder, const std::vector<shipped_image> &shipped);

// Makes a system image that carries an image for a card id.
void make_system_image(const std::string &path, unsigned card_id, const test_image &shipped);

// Whole file; throws when it cannot be read.
std::string file_content(const std::string &path);
void write_file(const std::string &path, const std::string &content);
