#include "bios_builder.h"

#include <cstdio>

#include "image_error.h"
#include "loader_file.h"

namespace
{

constexpr std::size_t SIZE_UNIT_BYTES = 4096;
constexpr std::size_t MAX_IMAGE_BYTES = std::size_t{64} << 20;
constexpr char ERASED = '\xff';

bool date_exists(const bios_header &header)
{
    constexpr int days_of_month[12] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (header.month < 1 || header.month > 12 || header.day < 1)
        return false;
    const bool leap_year = header.year % 4 == 0; // two digits: 2000 to 2099, no century exception
    if (header.month == 2 && !leap_year)
        return header.day <= 28;
    return header.day <= days_of_month[header.month - 1];
}

} // namespace

std::size_t parse_image_size(const std::string &text)
{
    unsigned number = 0;
    int used = 0;
    if (text.empty() || text[0] < '0' || text[0] > '9' || std::sscanf(text.c_str(), "%7u%n", &number, &used) != 1)
        throw image_error("size " + text + ": is a number of MiB, or of KiB with a K behind it");
    const std::string unit = text.substr(static_cast<std::size_t>(used));
    if (!unit.empty() && unit != "K")
        throw image_error("size " + text + ": is a number of MiB, or of KiB with a K behind it");
    const std::size_t bytes = static_cast<std::size_t>(number) << (unit.empty() ? 20 : 10);
    if (bytes == 0 || bytes > MAX_IMAGE_BYTES || bytes % SIZE_UNIT_BYTES != 0)
        throw image_error("size " + text + ": is a multiple of 4K from 4K to 64 MiB");
    return bytes;
}

bios_header parse_bios_header(const std::string &version, const std::string &date)
{
    bios_header header{};
    int used = 0;
    if (std::sscanf(version.c_str(), "%2d.%4d%n", &header.major, &header.minor, &used) != 2 ||
        static_cast<std::size_t>(used) != version.size())
        throw image_error("version " + version + ": expected MAJOR.MINOR, two and four digits at most");
    used = 0;
    if (std::sscanf(date.c_str(), "%2d/%2d/%2d%n", &header.month, &header.day, &header.year, &used) != 3 ||
        static_cast<std::size_t>(used) != date.size() || !date_exists(header))
        throw image_error("date " + date + ": expected a date as MM/DD/YY");
    char bytes[BIOS_HEADER_BYTES];
    if (!bios_header_write(header, bytes))
        throw image_error("version " + version + ", date " + date + ": do not fit the header");
    return header;
}

std::string build_bios_image(const bios_header &header, std::size_t image_bytes, const std::string &payload)
{
    if (image_bytes < BIOS_HEADER_BYTES || payload.size() > image_bytes - BIOS_HEADER_BYTES)
        throw image_error("payload of " + std::to_string(payload.size()) + " bytes: does not fit an image of " +
                          std::to_string(image_bytes) + " bytes with its header");
    std::string image(image_bytes, ERASED);
    if (!bios_header_write(header, image.data()))
        throw image_error("header: a number does not fit its field");
    image.replace(image_bytes - payload.size(), payload.size(), payload);
    return image;
}

std::string payload_with_version(std::string payload, const std::string &text, const bios_header &header)
{
    std::size_t count = 0;
    std::size_t place = std::string::npos;
    for (std::size_t found = payload.find(text); found != std::string::npos;
         found = payload.find(text, found + 1)) {
        place = found;
        ++count;
    }
    if (count != 1)
        throw image_error("payload version " + text + ": is " + std::to_string(count) +
                          " times in the payload, expected once");
    std::string version = bios_header_text(header);
    version.erase(0, version.find_first_not_of(' '));
    if (version.size() > text.size())
        throw image_error("payload version " + text + ": " + version + " is longer");
    version.resize(text.size(), ' ');
    return payload.replace(place, text.size(), version);
}

std::string build_loader_file(const std::string &version, std::size_t file_bytes, const std::string &payload)
{
    std::string loader = loader_version_tag(version);
    if (loader.empty())
        throw image_error("version " + version +
                          ": is 1 to 255 printable characters without $$ in them or $ at the end");
    const std::size_t needed_bytes = LOADER_HEAD_BYTES + payload.size();
    const std::size_t size_bytes = file_bytes == 0 ? needed_bytes : file_bytes;
    if (size_bytes < needed_bytes || size_bytes > MAX_IMAGE_BYTES)
        throw image_error("payload of " + std::to_string(payload.size()) +
                          " bytes: does not fit a loader file of " +
                          std::to_string(file_bytes == 0 ? MAX_IMAGE_BYTES : file_bytes) + " bytes with its head");
    loader.resize(LOADER_HEAD_BYTES);
    loader += payload;
    loader.resize(size_bytes);
    return loader;
}
