/* What the conformance kit cannot know about a platform: which card this is, how to start a process on another one,
   what may be written. The platform's team implements these functions, in C or C++, and builds the kit with them;
   chassis_surroundings.cpp is the implementation for the chassis on one machine.

   Functions that return a text return null when it is done, or the reason why this cannot be had. Every test that
   needs it is then reported as skipped, with that reason. Whatever a pointer leads to stays valid until
   contract_end. Outputs need not be set where a reason is returned. */
#ifndef CONTRACT_SURROUNDINGS_H
#define CONTRACT_SURROUNDINGS_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Called first in each process of the kit. The kit runs as tests, and as the peers that they talk to.
     is_peer  1 in a process that was started with the argument "--peer"
   0, or not 0: the process ends with exit status 2. */
int contract_begin(int is_peer);

/* Called last in the process that runs the tests. */
void contract_end(void);

/* The card that the tests run on, as the platform has to describe it. */
struct contract_card {
    uint8_t module;           /* own module number */
    uint16_t card_id;         /* hardware card id */
    int is_supervisor;        /* not 0 on a supervisor */
    int32_t supervisor_state; /* what sysmgr_cli_supstate_get has to return: 1 active, 2 standby */
    int is_upgrade_restart;   /* what sysmgr_is_upgrade_restart has to tell: 0 no, otherwise yes */
    uint8_t empty_module;     /* number of a slot without a card; 0: there is none */
};
void contract_this_card(struct contract_card *card_out);

/* A service access point that nobody uses. number: 0 to 3, each one another. */
uint32_t contract_sap(uint32_t number);

/* An existing folder in which the kit may make and remove files: an absolute path without a slash at its end. */
const char *contract_scratch_folder(void);

/* Starts a program of this kit on another card.
     arguments      as for execv; the first is the path of the running kit
     input, output  descriptors that become standard input and output of the process there
     process_out    a child of the caller that ends when the process there does: itself, or what carries its streams
 */
const char *contract_start_on_other_card(char *const arguments[], int input, int output, pid_t *process_out);

/* A flash of this card that the kit may program, again and again, with two images for it. A reason in the place of
   the flash says that nothing here may be destroyed. When the tests have ended it holds either image, or neither.
 */
struct contract_flash {
    uint32_t instance;            /* BIOS_FLASH_PRIMARY or BIOS_FLASH_ALTERNATE */
    uint32_t variant;             /* of ibexpeak_bios_which_flash; 0 for the plain x86 layout */
    uint32_t size_bytes;          /* of the flash */
    const char *image[2];         /* files as large as the flash, different in every sector */
    const char *image_version[2]; /* their version texts, whole and as the platform tells them; not the same */
};
const char *contract_plain_flash(struct contract_flash *flash_out);
const char *contract_chipset_flash(struct contract_flash *flash_out);

/* The file that the erase call of the chipset layouts looks at before it erases: the kit writes and removes it. A
   reason says that this platform's call looks at none. */
const char *contract_temporary_image(const char **path_out);

/* A flash number of the plain x86 layout that this card does not have. */
const char *contract_missing_flash(uint32_t *instance_out);

/* Reads a flash by another way than the tested library: a programmer, a device node, a debugger. */
const char *contract_read_flash(uint32_t instance, uint32_t offset, void *bytes_out, uint32_t length);

/* Conditions that the kit switches on before a call and off after it. */
enum contract_condition {
    CONTRACT_FLASH_CANNOT_BE_ERASED = 1,
    CONTRACT_FLASH_CANNOT_BE_WRITTEN,
    CONTRACT_FLASH_KEEPS_OTHER_BYTES, /* writes succeed, but a byte of the flash is not what was written */
    CONTRACT_FLASH_IS_PROTECTED,      /* at least one sector, against erasing and writing */
    CONTRACT_REGISTER_CANNOT_BE_WRITTEN,
    CONTRACT_MODULE_INFO_CANNOT_BE_READ,
    CONTRACT_MODULES_CANNOT_BE_LISTED,
    CONTRACT_NO_STANDBY
};
const char *contract_set_condition(enum contract_condition condition, int on);

/* A file of the standby supervisor that the kit may write, an absolute path. */
const char *contract_standby_file(const char **path_out);

/* Reads a file of the standby supervisor by another way than the tested library.
     length_out  bytes of the file, at most limit */
const char *contract_read_standby_file(const char *path, void *bytes_out, size_t limit, size_t *length_out);

/* A stretch of an SPROM device whose bytes are known. */
struct contract_known_sprom {
    uint32_t device;
    uint16_t offset;
    uint16_t length; /* 4 to 512 */
    const uint8_t *bytes;
};
const char *contract_sprom(struct contract_known_sprom *sprom_out);

/* A control register that may be written with a value. */
const char *contract_register(uint32_t *number_out, uint32_t *value_out);
const char *contract_read_register(uint32_t number, uint32_t *value_out);

/* An image URI, and the path that it has to be mapped to. */
const char *contract_image_uri(const char **uri_out, const char **path_out);

/* A boot-loader file, and the version text in it. */
const char *contract_loader_file(const char **path_out, const char **version_out);

/* Switches a debug category of this process on or off. */
const char *contract_set_debug_category(uint32_t category, int on);

/* What has been recorded lately, the end of it when there is more; NUL-terminated. */
enum contract_record { CONTRACT_HISTORY = 1, CONTRACT_DEBUG_OUTPUT, CONTRACT_SYSLOG };
const char *contract_read_record(enum contract_record record, char *text_out, size_t bytes);

#ifdef __cplusplus
}
#endif
#endif
