// Platform manager: who this card is and what is in the chassis.
#ifndef PLATFORM_PFM_H
#define PLATFORM_PFM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    PFM_MODULE_COUNT = 232, // modules are numbered 1 to this
    PFM_KIND_SUPERVISOR = 1,
    PFM_KIND_SUPERVISOR_ALTERNATE = 4,
};

// Identity of this card; only the first byte is read by the daemon.
typedef struct platform_info {
    uint8_t module_num; // 1..PFM_MODULE_COUNT
    uint8_t reserved[255];
} platform_info_t;

// One module; the record of module m stands at index m - 1. All zero for an empty slot.
typedef struct pfm_module_record {
    uint8_t kind; // PFM_KIND_SUPERVISOR or _ALTERNATE: its daemon is at node m * 256 + 1. Any other value, for
                  // instance 2: a line card or another card, whose daemon is at node m * 256 + 2
    uint8_t reserved_1[7];
    uint16_t card_id; // hardware card id, host order
    uint8_t reserved_2[6];
} pfm_module_record_t;

// Module information of this card.
typedef struct card_module_info {
    uint16_t reserved_1;
    uint16_t card_id; // hardware card id, host order
    uint16_t reserved_2;
} card_module_info_t;

// Fills the record. 0, or not 0 with errno.
int32_t get_platform_info(platform_info_t *info);

// Fills the records of all modules.
//   records  count records, zeroed for the slots that are empty
//   count    PFM_MODULE_COUNT
// Not negative, or negative with errno and the records as they were.
int32_t pfm_get_all_modules_in_chassis(int32_t handle, pfm_module_record_t *records, uint32_t count);

// Fills the 6-byte record, which the caller has zeroed. What was read once is known: a shortage of descriptors or
// memory does not make a later call fail. 0, or not 0 with errno.
int32_t get_card_module_info(card_module_info_t *info);

#ifdef __cplusplus
}
#endif
#endif
