// System images and image trees: the two places that BIOS images are shipped in.
#pragma once

#include <string>
#include <vector>

// A BIOS image file and the name it is shipped under, such as bios-x86n.bin.gz.
struct shipped_bios {
    std::string name;
    std::string path;
};

// Splits "NAME=FILE". Throws image_error when a part is missing or the name has a slash.
shipped_bios parse_shipped_bios(const std::string &text);

// Makes a system image, a compressed archive. For BIOS images it has the member vesk/plugin_img/core_plugin, which
// is a compressed archive of vesk/bin/NAME for each; for a loader file, unless its name is empty,
// etc/srg-sloader.sro. The output appears complete or not at all. Throws image_error, also when there is nothing to
// put in.
void build_system_image(const std::string &output, const std::vector<shipped_bios> &images,
                        const std::string &loader);

// Puts each BIOS, compressed, at ROOT/vesk/bin/NAME; folders are made. Throws image_error.
void build_image_tree(const std::string &root, const std::vector<shipped_bios> &images);

// The whole of a file, at most 1 GiB. Throws image_error.
std::string read_whole_file(const std::string &path);

// Replaces a file by its new contents, complete or not at all. Throws image_error.
void replace_file(const std::string &path, const std::string &contents);
