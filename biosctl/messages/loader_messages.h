// The messages about a boot loader: requests put together, answers taken apart.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "bios_messages.h"
#include "daemon_request.h"

constexpr std::size_t LOADER_IMAGE_PATH_BYTES_MAX =
    sizeof(bios_install_loader_req_t::image_path) - 1; // the terminator is needed

// MTS_OPC_BIOS_INSTALL_LOADER.
//   image_path    on the card, at most LOADER_IMAGE_PATH_BYTES_MAX bytes
//   remove_image  when done, whatever came of it
daemon_request encode_loader_install_request(const std::string &image_path, bool remove_image);

enum class loader_file {
    loader, // the installed boot loader
    ks,     // "/etc/srg-ks.sro"
};

// MTS_OPC_BIOS_GET_LOADER_IMAGE or MTS_OPC_BIOS_GET_KS_IMAGE.
//   length  bytes of the file that are wanted
daemon_request encode_loader_file_request(loader_file file, std::uint32_t length);

// What a daemon answered to a request for a file.
struct file_answer {
    int error = 0;            // errno of request_answer when there was no answer
    bool understood = true;   // false: it is no answer to this request
    std::uint32_t status = 0; // 0: all bytes asked for are in content
    std::vector<std::uint8_t> content = {};

    bool has_content() const { return error == 0 && understood && status == 0; }
};

// Takes the payload of an answer to a request for so many bytes apart.
file_answer decode_file_answer(std::vector<std::uint8_t> payload, std::uint32_t length);
