// Iterator over an aligned array of type-length-value records.
#ifndef PLATFORM_TLV_H
#define PLATFORM_TLV_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Returns the next record of an aligned array: a 32-bit big-endian count, then that many records of type
// (16 bits, big-endian), length of the value (16 bits, big-endian) and value, each padded to 4 bytes.
//   array       the array; it lies in an answer that cmi_remote_req_resp returned, and the transport knows the
//               answer's end: no record beyond it is returned
//   type_out, length_out, value_out  set on success only; the value points into the array
//   alignment   1
//   cursor      position of the iterator, 0 at the start; advanced on success
// 0, or not 0 when there is no further record.
int32_t tlv_aligned_array_get_next_tlv(const void *array, uint16_t *type_out, uint16_t *length_out,
                                       const void **value_out, uint32_t alignment, uint32_t *cursor);

#ifdef __cplusplus
}
#endif
#endif
