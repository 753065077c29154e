// Card control block.
#ifndef PLATFORM_CCTRL_H
#define PLATFORM_CCTRL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Writes a control register of this card. 0, or not 0 with errno.
int32_t cctrl_write_reg3(uint32_t reg, uint32_t value);

#ifdef __cplusplus
}
#endif
#endif
