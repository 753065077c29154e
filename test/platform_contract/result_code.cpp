#include "result_code.h"

#include <cstdio>
#include <ostream>

#include "bios_flash.h"
#include "bios_results.h"

namespace
{

struct named_result {
    std::int32_t value;
    const char *name;
};

#define NAMED(code)                                                                                                \
    {                                                                                                              \
        static_cast<std::int32_t>(code), #code                                                                     \
    }

// What the flash service may return and what the daemon answers; of codes that both name, the flash service's name.
constexpr named_result NAMED_RESULTS[] = {
    NAMED(BIOS_FLASH_ERR_ERASE),
    NAMED(BIOS_FLASH_ERR_PROGRAM),
    NAMED(BIOS_FLASH_ERR_IMAGE_SIZE),
    NAMED(BIOS_FLASH_ERR_PROTECTED),
    NAMED(BIOS_FLASH_ERR_IMAGE_READ),
    NAMED(BIOS_FLASH_ERR_NO_FLASH),
    NAMED(BIOS_FLASH_ERR_IN_USE),
    NAMED(BIOS_NOT_NEEDED),
    NAMED(BIOS_ERR_NO_IMAGE_FILE),
    NAMED(BIOS_ERR_IMAGE_NOT_REMOVED),
    NAMED(BIOS_ERR_URI),
    NAMED(BIOS_ERR_MODULE_INFO),
    NAMED(BIOS_ERR_NOT_SENT),
    NAMED(BIOS_ERR_NO_COMPLETION),
    NAMED(BIOS_ERR_BUSY),
    NAMED(BIOS_ERR_IMAGE_NO_VERSION),
    NAMED(BIOS_ERR_IMAGE_VERSION_READ),
    NAMED(BIOS_ERR_FLASH_NO_VERSION),
    NAMED(BIOS_ERR_FLASH_VERSION_READ),
    NAMED(BIOS_ERR_NO_MEMORY),
    NAMED(BIOS_READER_NO_ACCESS),
    NAMED(BIOS_READER_NO_VERSION),
};

#undef NAMED

constexpr std::int32_t LARGEST_DECIMAL = 0xffff; // wait statuses and the like

} // namespace

std::ostream &operator<<(std::ostream &stream, const result_code &code)
{
    char number[16];
    (void)std::snprintf(number, sizeof number, code.value > LARGEST_DECIMAL ? "0x%x" : "%d",
                        static_cast<unsigned>(code.value));
    stream << number;
    for (const named_result &known : NAMED_RESULTS) {
        if (known.value == code.value)
            return stream << " (" << known.name << ")";
    }
    return stream;
}
