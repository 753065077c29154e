// BIOS flash access: versions, erasing and programming.
//
// Version texts are NUL-terminated and at most 127 characters in a buffer of 128 bytes, whatever the flash or the
// image holds; a longer text is cut, or there is no version. The version calls
// return 0, or a negative code: -61 no version was found, also for a flash whose programming was begun and not
// ended; -22 the flash or the image could not be opened or mapped.
//
// The programming calls return 0 only when the flash was read back and equals the image. Their failures are
// codes 0x4071xxxx whose low byte alone identifies them; those of the flash service itself are named here. A
// service may refuse an image before anything is erased, with a code of include/bios_refusals.h: because it was not
// ordered, or is not plausible for this flash. All attempts of a process at one programming are written from the
// bytes that were judged at the first of them, whatever becomes of the file.
#ifndef PLATFORM_BIOS_FLASH_H
#define PLATFORM_BIOS_FLASH_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { BIOS_VERSION_TEXT_BYTES = 128 };

enum {
    BIOS_FLASH_PRIMARY = 0,
    BIOS_FLASH_ALTERNATE = 1,
};

// Failures of the programming calls. After the first two the flash is in an unknown state and is marked as being
// programmed (its version is not told) unless nothing could be begun; another attempt may help. After all others
// the flash is as it was before the call.
enum {
    BIOS_FLASH_ERR_ERASE = 0x40710009,      // the marker could not be set, or a sector could not be erased
    BIOS_FLASH_ERR_PROGRAM = 0x4071000c,    // the flash could not be written, or does not read back as the image
    BIOS_FLASH_ERR_IMAGE_SIZE = 0x40710020, // the image is empty or no regular file; or larger than the flash,
                                            // unless that is BIOS_REFUSED_TOO_LARGE
    BIOS_FLASH_ERR_PROTECTED = 0x40710021,  // a sector that would have to change is write-protected
    BIOS_FLASH_ERR_IMAGE_READ = 0x40710023, // the image could not be opened or read
    BIOS_FLASH_ERR_NO_FLASH = 0x40710024,   // there is no such flash, or it could not be opened or read; one that
                                            // is marked and cannot be read is BIOS_FLASH_ERR_PROGRAM
    BIOS_FLASH_ERR_IN_USE = 0x40710027,     // the flash is being programmed by another process
};

// Work area that a programming request lends to the flash service for its whole length, zeroed at its start:
// the service keeps there what it must know across attempts. Callers only pass it on.
typedef struct bios_flash_progress_area {
    uint32_t word[16];
} bios_flash_progress_area_t;

// Version text of the BIOS in a flash of this card; one call per flash layout.
//   version_out   128 bytes
//   flash_select  BIOS_FLASH_PRIMARY or BIOS_FLASH_ALTERNATE
int32_t get_bios_flash_version(char *version_out, uint32_t flash_select);
int32_t get_ibexpeak_bios_flash_version(char *version_out, uint32_t flash_select);
int32_t get_ibexpeak_qel_bios_flash_version(char *version_out, uint32_t flash_select);
int32_t get_ibexpeak_tarvik_a_bios_flash_version(char *version_out, uint32_t flash_select);

// Version text of a BIOS image file.
//   phys_offset  0
//   version_out  at least 128 bytes, of which 128 may be written
int32_t get_bios_src_version(const char *image_path, uint32_t phys_offset, char *version_out);
int32_t get_ibexpeak_bios_src_version(const char *image_path, uint32_t phys_offset, char *version_out);

// Writes an image into the flash of this card (the plain x86 layout): erases what differs, writes, reads back.
// The image lies at the beginning of the flash. What is behind a smaller image is erased, 0xff, and read back, too.
// Blocks until done. Sends progress messages to the requester (MTS_OPC_BIOS_PROGRAMMING_PROGRESS with a
// bios_programming_progress_t, see include/bios_messages.h): over all attempts with one progress area the
// percentages never go back, and 100 is sent only when the flash was found equal to the image and has its version.
// A requester that cannot be reached is no failure.
//   handle         endpoint of this process that the messages are sent from
//   path           image file; removed by the caller
//   attempt        1-based number of the attempt
//   progress_area  bios_flash_progress_area_t
//   image_type     flash instance: BIOS_FLASH_PRIMARY or BIOS_FLASH_ALTERNATE
// 0x40710009 and 0x4071000c mean that the flash was left unprogrammed and another attempt may help.
int32_t program_bios_flash(int32_t handle, uint32_t requester_node, uint32_t requester_sap, uint32_t own_module,
                           const char *path, uint32_t attempt, void *progress_area, uint32_t image_type);

// Selector of a flash on a board with an ibexpeak chipset; the low 8 bits are used.
//   name     "pri"
//   variant  flash layout of the board family: 3, 4 or 5
uint32_t ibexpeak_bios_which_flash(const char *name, uint32_t variant);

// Erases a flash. 0 when all of it was erased; it has no version then until it is programmed, -61. A service may
// refuse it when there is no image that could be written afterwards: the one in the card's temporary image file.
int32_t ibexpeak_bios_flash_erase(uint32_t selector);

// Writes an image into an erased flash and reads it back; otherwise as program_bios_flash.
int32_t ibexpeak_program_bios_command_ex(const char *path, uint32_t selector, int32_t handle,
                                         uint32_t requester_node, uint32_t requester_sap, uint32_t own_module,
                                         uint32_t attempt, void *progress_area);

#ifdef __cplusplus
}
#endif
#endif
