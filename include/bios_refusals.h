// Why a programming is refused before anything is erased. Results like those of bios_results.h: the low byte alone
// identifies them. None of them asks for another attempt, and the flash is as it was before this attempt: after an
// earlier one that failed, or an erase, BIOS_REFUSED_CHANGED leaves it marked.
//
// Order of the checks: the order, the image itself, its family, its size, its version, its signature.
#pragma once

#include <cstdint>

enum bios_refusal : std::uint32_t {
    BIOS_REFUSED_NOT_CHECKED = 0x40710040, // the card cannot check the image: its policy or its agent fails
    BIOS_REFUSED_NO_IMAGE = 0x40710041,    // a flash was to be erased, and there is no image to write afterwards
    BIOS_REFUSED_NO_ORDER = 0x40710042,    // the card's policy demands an order, and there is none
    BIOS_REFUSED_OTHER_IMAGE = 0x40710043, // the image is not the one that was ordered
    BIOS_REFUSED_CANCELLED = 0x40710044,   // the order was cancelled
    BIOS_REFUSED_FAMILY = 0x40710045,      // the image is for cards of another family
    BIOS_REFUSED_TOO_LARGE = 0x40710046,   // the image is larger than the flash
    BIOS_REFUSED_SMALLER = 0x40710047,     // the image is smaller than the flash
    BIOS_REFUSED_NO_VERSION = 0x40710048,  // the image has no version
    BIOS_REFUSED_OLDER = 0x40710049,       // the image is older than what the flash holds
    BIOS_REFUSED_MANIFEST = 0x4071004a,    // the manifest of the image is damaged, or does not fit its bytes
    BIOS_REFUSED_UNSIGNED = 0x4071004b,    // the card takes signed images only, and the image has no signature
    BIOS_REFUSED_SIGNATURE = 0x4071004c,   // the signature is wrong, or no key that the card trusts has made it
    BIOS_REFUSED_SECURITY = 0x4071004d, // the security version of the image is below the one that the card demands
    BIOS_REFUSED_CHANGED = 0x4071004e,  // the image file changed while it was read
};

constexpr bool bios_is_refusal(std::uint32_t code)
{
    return code >= BIOS_REFUSED_NOT_CHECKED && code <= BIOS_REFUSED_CHANGED;
}

// Which of them whoever orders a programming may take back.
enum bios_force : std::uint32_t {
    BIOS_FORCE_OLDER = 1,
    BIOS_FORCE_FAMILY = 2,
    BIOS_FORCE_NO_VERSION = 4,
    BIOS_FORCE_SMALLER = 8,
};
constexpr std::uint32_t BIOS_FORCE_ALL = 15;
