// Reading and writing the x86n BIOS header.
#include "bios_header.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace
{

constexpr char SIGNATURE[] = ">>> KORVA SUP_TELMA_OR BIOS <<<";
constexpr std::size_t SIGNATURE_BYTES = sizeof SIGNATURE - 1;
constexpr std::size_t SIGNATURE_OFFSET = 18;
constexpr std::size_t MONTH_OFFSET = 55;
constexpr std::size_t DAY_OFFSET = 59;
constexpr std::size_t YEAR_OFFSET = 77;
constexpr std::size_t MAJOR_OFFSET = 81;
constexpr std::size_t MINOR_OFFSET = 84;
constexpr std::size_t MONTH_BYTES = 3;

constexpr const char *MONTHS[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                  "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// The free text between the fields is chosen so that each field comes to stand at its offset.
constexpr char BEFORE_SIGNATURE[] = "x86n BIOS header \n";
constexpr char BEFORE_MONTH[] = "\ndate ";
constexpr char BEFORE_YEAR[] = ", in the year 20";
static_assert(sizeof BEFORE_SIGNATURE - 1 == SIGNATURE_OFFSET);
static_assert(SIGNATURE_OFFSET + SIGNATURE_BYTES + sizeof BEFORE_MONTH - 1 == MONTH_OFFSET);
static_assert(MONTH_OFFSET + MONTH_BYTES + 1 == DAY_OFFSET);
static_assert(DAY_OFFSET + 2 + sizeof BEFORE_YEAR - 1 == YEAR_OFFSET);
static_assert(YEAR_OFFSET + 2 + 2 == MAJOR_OFFSET && MAJOR_OFFSET + 2 + 1 == MINOR_OFFSET);

int month_number(const char *name)
{
    for (std::size_t index = 0; index < std::size(MONTHS); ++index) {
        if (std::memcmp(name, MONTHS[index], MONTH_BYTES) == 0)
            return static_cast<int>(index) + 1;
    }
    return -1;
}

int decimal(const char *text)
{
    const long number = std::strtol(text, nullptr, 10);
    return static_cast<int>(std::clamp<long>(number, INT_MIN, INT_MAX));
}

bool in_range(int value, int first, int last)
{
    return first <= value && value <= last;
}

} // namespace

bool bios_header_read(const void *bytes, bios_header &header_out)
{
    char text[BIOS_HEADER_BYTES + 1];
    std::memcpy(text, bytes, BIOS_HEADER_BYTES);
    text[BIOS_HEADER_BYTES] = '\0';
    if (std::memcmp(text + SIGNATURE_OFFSET, SIGNATURE, SIGNATURE_BYTES) != 0)
        return false;
    header_out = {.major = decimal(text + MAJOR_OFFSET),
                  .minor = decimal(text + MINOR_OFFSET),
                  .month = month_number(text + MONTH_OFFSET),
                  .day = decimal(text + DAY_OFFSET),
                  .year = decimal(text + YEAR_OFFSET)};
    return true;
}

bool bios_header_write(const bios_header &header, void *bytes_out)
{
    if (!in_range(header.major, 0, 99) || !in_range(header.minor, 0, 9999) || !in_range(header.month, 1, 12) ||
        !in_range(header.day, 1, 31) || !in_range(header.year, 0, 99))
        return false;
    char text[BIOS_HEADER_BYTES + 1];
    const int length = std::snprintf(text, sizeof text, "%s%s%s%s %02d%s%02d v%02d.%02d", BEFORE_SIGNATURE,
                                     SIGNATURE, BEFORE_MONTH, MONTHS[header.month - 1], header.day, BEFORE_YEAR,
                                     header.year, header.major, header.minor);
    std::memset(text + length, ' ', BIOS_HEADER_BYTES - static_cast<std::size_t>(length));
    text[BIOS_HEADER_BYTES - 1] = '\n';
    std::memcpy(bytes_out, text, BIOS_HEADER_BYTES);
    return true;
}

void bios_header_text(const bios_header &header, char *text_out)
{
    std::snprintf(text_out, BIOS_HEADER_TEXT_BYTES, "  v%d.%d.0(%02d/%02d/%02d)", header.major, header.minor,
                  header.month, header.day, header.year);
}

std::string bios_header_text(const bios_header &header)
{
    char text[BIOS_HEADER_TEXT_BYTES];
    bios_header_text(header, text);
    return text;
}

std::string bios_version_in(const void *bytes)
{
    bios_header header;
    if (!bios_header_read(bytes, header))
        return {};
    const std::string text = bios_header_text(header);
    return text.substr(std::min(text.find_first_not_of(' '), text.size()));
}
