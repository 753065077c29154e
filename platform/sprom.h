// SPROM devices of this card and the service call that reads them.
#ifndef PLATFORM_SPROM_H
#define PLATFORM_SPROM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { SSE_CALL_SPROM_READ = 102 };

// Request of sse_call(SSE_CALL_SPROM_READ, ...): 20 bytes on the 32-bit target, host order.
typedef struct sse_sprom_read_request {
    uint32_t device;
    uint8_t reserved_1;
    uint8_t reserved_2;
    uint16_t offset; // first byte to read
    uint16_t length; // bytes to read
    uint8_t reserved_3;
    uint8_t reserved_4;
    void *destination; // length bytes
    uint32_t reserved_5;
} sse_sprom_read_request_t;

// Initialise and release an SPROM device. It is released before it is initialised, too: that does no harm and may
// return anything.
//   device, offset, length  device number and the stretch of bytes meant; the last word is 0
// 0, or negative with errno.
int32_t sprom_init_dev(uint32_t device, uint32_t offset, uint32_t length, uint32_t reserved);
int32_t sprom_cleanup_dev(uint32_t device, uint32_t offset, uint32_t length, uint32_t reserved);

// Performs a service call. Not negative, or negative with errno; the destination holds the bytes on success.
int32_t sse_call(uint32_t call, void *request);

#ifdef __cplusplus
}
#endif
#endif
