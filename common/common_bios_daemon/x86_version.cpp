#include "x86_version.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "bios_flash.h"
#include "bios_log.h"
#include "bios_results.h"
#include "image_mapping.h"

namespace
{

constexpr char MAGIC_STR[] = ">>> KORVA SUP_TELMA_OR BIOS <<<";
constexpr std::size_t MAGIC_LEN = 31;
constexpr std::size_t MAGIC_OFFSET = 18;
static_assert(sizeof MAGIC_STR == MAGIC_LEN + 1);

constexpr std::uint8_t IMAGE_HEADER_MAGIC[4] = {0x27, 0x05, 0x19, 0x56};

// get_x86_bios_version: a signature block somewhere in 512 KiB, on a 1 KiB boundary.
constexpr std::size_t SEARCH_BYTES = 0x80000;
constexpr std::size_t SEARCH_STEP = 0x400;
constexpr std::size_t BLOCK_DATE_OFFSET = 31;
constexpr std::size_t BLOCK_VERSION_OFFSET = 56;
constexpr std::size_t BLOCK_TEXT_BYTES = 8;
constexpr std::size_t BLOCK_BYTES = BLOCK_VERSION_OFFSET + BLOCK_TEXT_BYTES;
constexpr std::size_t NO_BLOCK = SEARCH_BYTES;

// x86n and x86s: a header of fixed offsets.
constexpr std::size_t HEADER_BYTES = 128;
constexpr std::size_t X86S_MAPPED_BYTES = 0x200000;
constexpr std::size_t X86S_HEADER_OFFSET = 0x10000;

struct header_layout {
    std::size_t month;
    std::size_t day;
    std::size_t year;
    std::size_t major;
    std::size_t minor;
};
constexpr header_layout X86N_LAYOUT = {.month = 55, .day = 59, .year = 77, .major = 81, .minor = 84};
constexpr header_layout X86S_LAYOUT = {.month = 51, .day = 55, .year = 73, .major = 77, .minor = 80};

constexpr std::int32_t FIELD_DIGITS = 2;
constexpr std::int32_t MONTH_LETTERS = 3;
constexpr std::size_t MONTHS = 12;
constexpr char MONTH_NAMES[MONTHS][MONTH_LETTERS + 1] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

std::size_t find_signature_block(const image_mapping &image)
{
    for (std::size_t p = 0; p < SEARCH_BYTES && p + MAGIC_LEN <= image.readable_bytes(); p += SEARCH_STEP) {
        if (std::memcmp(image.bytes() + p, MAGIC_STR, MAGIC_LEN) == 0)
            return p;
    }
    return NO_BLOCK;
}

// Copies a stretch of the image and ends it with a NUL. Behind the end of a file are zeros, as the mapping shows
// them to the end of its page.
template<std::size_t SIZE>
void copy_stretch(const image_mapping &image, std::size_t offset, char (&copy)[SIZE])
{
    std::memset(copy, 0, SIZE);
    if (offset < image.readable_bytes())
        std::memcpy(copy, image.bytes() + offset, std::min(SIZE - 1, image.readable_bytes() - offset));
}

// The header's text fields have no terminator of their own: header is a copy with one behind it.
void format_header_version(const char (&header)[HEADER_BYTES + 1], const header_layout &at, char *version_out)
{
    const std::int32_t year = asc_to_dec(header + at.year, FIELD_DIGITS);
    const std::int32_t day = asc_to_dec(header + at.day, FIELD_DIGITS);
    const std::int32_t month = asc_to_mon(header + at.month, MONTH_LETTERS);
    const std::int32_t minor = asc_to_dec(header + at.minor, FIELD_DIGITS);
    const std::int32_t major = asc_to_dec(header + at.major, FIELD_DIGITS);
    (void)std::snprintf(version_out, BIOS_VERSION_TEXT_BYTES - 1, "  v%d.%d.0(%02d/%02d/%02d)", major, minor, month,
                        day, year);
    BIOS_LOG("version found to be %s\n", version_out);
}

std::int32_t no_version(image_mapping &image, const char *version_out)
{
    BIOS_LOG("BIOS version magic string not found\n");
    image.release();
    BIOS_LOG("ERROR: could not find flash version (%s) err=%d rc=%d \n", version_out, errno,
             BIOS_READER_NO_VERSION);
    return BIOS_READER_NO_VERSION;
}

} // namespace

std::int32_t magic_string_check(const void *header)
{
    BIOS_LOG(">>> Magic string check\n");
    BIOS_LOG("%s:%d:\n", "magic_string_check", __LINE__);
    if (std::memcmp(header, IMAGE_HEADER_MAGIC, sizeof IMAGE_HEADER_MAGIC) == 0)
        return 0;
    const auto *bytes = static_cast<const std::uint8_t *>(header);
    return std::memcmp(bytes + MAGIC_OFFSET, MAGIC_STR, MAGIC_LEN) == 0 ? 0 : -1;
}

std::int32_t asc_to_mon(const char *text, [[maybe_unused]] std::int32_t length)
{
    BIOS_LOG("%s:%d:\n", "asc_to_mon", __LINE__);
    for (std::size_t i = 0; i < MONTHS; ++i) {
        if (std::strncmp(text, MONTH_NAMES[i], MONTH_LETTERS) == 0)
            return static_cast<std::int32_t>(i + 1);
    }
    return -1;
}

std::int32_t asc_to_dec(const char *text, [[maybe_unused]] std::int32_t length)
{
    BIOS_LOG("%s:%d:\n", "asc_to_dec", __LINE__);
    int number = 0;
    (void)std::sscanf(text, "%d", &number);
    return number;
}

std::int32_t get_x86_bios_version(const char *path, std::uint32_t phys_offset, char *version_out)
{
    std::memset(version_out, 0, BIOS_VERSION_TEXT_BYTES);
    BIOS_LOG("location=%s phy=0x%x ver=%s\n", path, phys_offset, version_out);

    image_mapping image;
    if (const std::int32_t result = image.map(path, SEARCH_BYTES, phys_offset); result != 0)
        return result;

    const std::size_t block_offset = find_signature_block(image);
    if (block_offset == NO_BLOCK) {
        image.release();
        BIOS_LOG("ERROR: could not find flash version err=%d \n", errno);
        return BIOS_READER_NO_VERSION;
    }
    char block[BLOCK_BYTES + 1];
    copy_stretch(image, block_offset, block);
    char text[BIOS_VERSION_TEXT_BYTES] = {};
    (void)std::snprintf(text, sizeof text, "%8.8s(%8.8s)", block + BLOCK_VERSION_OFFSET, block + BLOCK_DATE_OFFSET);
    image.release();
    std::memcpy(version_out, text, sizeof text);
    return 0;
}

std::int32_t get_x86n_bios_version(const char *path, std::uint32_t phys_offset, char *version_out)
{
    std::memset(version_out, 0, BIOS_VERSION_TEXT_BYTES);
    BIOS_LOG(">>> get_x86n_bios_version\n");
    BIOS_LOG("location=%s phy=0x%x ver=%s\n", path, phys_offset, version_out);

    image_mapping image;
    if (const std::int32_t result = image.map(path, HEADER_BYTES, phys_offset); result != 0)
        return result;
    if (image.readable_bytes() == 0)
        return no_version(image, version_out);

    char header[HEADER_BYTES + 1];
    copy_stretch(image, 0, header);
    BIOS_LOG("base = 0x%p MAGIC_OFFSET = 0x%x, MAGIC_LEN = %d, MAGIC_STR = %s, bios_hdr = %s ===\n",
             static_cast<const void *>(image.bytes()), static_cast<unsigned>(MAGIC_OFFSET),
             static_cast<int>(MAGIC_LEN), MAGIC_STR, header);
    if (magic_string_check(header) < 0)
        return no_version(image, version_out);
    format_header_version(header, X86N_LAYOUT, version_out);
    return 0;
}

std::int32_t get_x86s_bios_version(const char *path, std::uint32_t phys_offset, char *version_out)
{
    std::memset(version_out, 0, BIOS_VERSION_TEXT_BYTES);
    BIOS_LOG(">>> get_x86s_bios_version\n");
    BIOS_LOG("location=%s phy=0x%x ver=%s\n", path, phys_offset, version_out);

    image_mapping image;
    if (const std::int32_t result = image.map(path, X86S_MAPPED_BYTES, phys_offset); result != 0)
        return result;
    char header[HEADER_BYTES + 1];
    copy_stretch(image, 0, header);
    if (magic_string_check(header) < 0 || image.readable_bytes() <= X86S_HEADER_OFFSET)
        return no_version(image, version_out);

    copy_stretch(image, X86S_HEADER_OFFSET, header);
    format_header_version(header, X86S_LAYOUT, version_out);
    return 0;
}
