#include "version_messages.h"

#include <cstring>

namespace
{

// The sender's own byte order.
std::string host_bytes(std::uint32_t value)
{
    std::string bytes(sizeof value, '\0');
    std::memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

} // namespace

std::string be32_bytes(std::uint32_t value)
{
    std::string bytes;
    for (const unsigned shift : {24U, 16U, 8U, 0U})
        bytes.push_back(static_cast<char>(value >> shift & 0xff));
    return bytes;
}

std::string text_bytes(const std::string &text, std::size_t field_bytes)
{
    std::string bytes = text;
    bytes.resize(field_bytes);
    return bytes;
}

std::string module_version_request(std::uint32_t module)
{
    return be32_bytes(module);
}

std::string module_version_header(std::uint32_t module, std::uint32_t entries, std::uint32_t bios_id)
{
    return be32_bytes(module) + be32_bytes(entries) + be32_bytes(bios_id);
}

std::string version_entry(const told_versions &versions, std::uint32_t kind)
{
    return be32_bytes(0) + be32_bytes(kind) + text_bytes(versions.label) + text_bytes(versions.flash) +
           text_bytes(versions.running);
}

std::string module_version_answer(std::uint32_t module, std::uint32_t bios_id, const told_versions &versions)
{
    return module_version_header(module, 1, bios_id) + version_entry(versions);
}

std::string version_failure(std::uint32_t module)
{
    return be32_bytes(0xffffffff) + be32_bytes(module) + be32_bytes(0);
}

std::string card_version_answer(const told_versions &versions)
{
    return be32_bytes(0) + text_bytes(versions.flash) + text_bytes(versions.running) + be32_bytes(OWN_CARD_ID) +
           text_bytes(versions.label) + be32_bytes(0);
}

std::string source_version_request(bool image_tree, const std::string &image_path, mts_address_t progress)
{
    return host_bytes(image_tree ? 1 : 0) + text_bytes(image_path, 256) + host_bytes(progress.node) +
           host_bytes(progress.sap);
}

std::string source_version_answer(const std::string &version)
{
    constexpr std::uint32_t FLASH_KIND = 11;
    constexpr std::uint32_t IMAGE_FORMAT = 19;
    return be32_bytes(0) + be32_bytes(1) + be32_bytes(0) + be32_bytes(FLASH_KIND) + text_bytes(FLASH_LABEL) +
           text_bytes(version) + be32_bytes(IMAGE_FORMAT);
}
