// Result codes of the daemon. They travel as 32-bit words; a programming child's result travels as its exit
// byte, so the low byte of a BIOS_ERR_ code identifies it. Those of the flash service, 0x40710009 and 0x4071000c
// among them, are BIOS_FLASH_ERR_ in platform/bios_flash.h.
#pragma once

#include <cstdint>

enum bios_result : std::uint32_t {
    BIOS_OK = 0,
    BIOS_RESULT_PREFIX = 0x40710000,
    BIOS_NOT_NEEDED = 0x40710001,             // the flash needs no programming; not an error
    BIOS_ERR_NO_IMAGE_FILE = 0x40710003,      // the image file does not exist
    BIOS_ERR_IMAGE_NOT_REMOVED = 0x40710004,  // the image file could not be removed after programming
    BIOS_ERR_URI = 0x40710005,                // the image URI could not be mapped to a local path
    BIOS_ERR_MODULE_INFO = 0x40710006,        // the card's module information could not be read
    BIOS_ERR_NOT_SENT = 0x40710007,           // the request could not be sent to the target module
    BIOS_ERR_NO_COMPLETION = 0x40710008,      // the target module did not report its end in time
    BIOS_ERR_BUSY = 0x4071000a,               // a programming is in progress, or a module lock is held by another
    BIOS_LOCK_FOR_PEER = 0x4071000b,          // reason code of a lock taken for a peer; no result
    BIOS_ERR_IMAGE_NO_VERSION = 0x4071000f,   // no version in the image
    BIOS_ERR_BIND = 0x40710010,               // the transport endpoint could not be bound
    BIOS_ERR_NO_ENTRIES = 0x40710012,         // no flash entries for the card id
    BIOS_ERR_NO_OPERATION = 0x40710013,       // a flash entry lacks an operation
    BIOS_ERR_IMAGE_VERSION_READ = 0x4071001c, // the image's version could not be read
    BIOS_ERR_WORK_FILE = 0x40710022,          // a work file of the image's checksum could not be written
    BIOS_ERR_FLASH_NO_VERSION = 0x40710025,   // no version in the flash
    BIOS_ERR_FLASH_VERSION_READ = 0x40710026, // the flash's version could not be read
    BIOS_ERR_NO_MEMORY = 0x40710028,          // a work area could not be allocated
    BIOS_ERR_CARD_ID = 0x40710030,            // the own software card id is 0
};

// Results of the boot-loader requests.
enum bios_loader_result : std::uint32_t {
    BIOS_LOADER_FILE_NO_MEMORY = 1,        // a file's answer could not be allocated
    BIOS_LOADER_ERR_INSTALL = 0x40530001,  // the installation command failed
    BIOS_LOADER_SAME_VERSION = 0x40530002, // the image's loader has the installed one's version; nothing installed
    BIOS_LOADER_ERR_IMAGE = 0x40530004,    // the system image could not be opened
    BIOS_LOADER_ERR_NO_VERSION = 0x40530005, // no version in the image's loader file
    BIOS_LOADER_ERR_MOUNT = 0x40530006,      // the boot-loader partition could not be mounted
};

// Results of the BIOS version readers.
enum bios_reader_result : std::int32_t {
    BIOS_READER_NO_ACCESS = -22,  // the file or device could not be opened or mapped
    BIOS_READER_NO_VERSION = -61, // no version found, or the checksum failed
};

constexpr std::int32_t bios_signed(std::uint32_t code)
{
    return static_cast<std::int32_t>(code);
}
