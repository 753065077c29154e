// Image and loader files.
#ifndef PLATFORM_IMAGE_FILES_H
#define PLATFORM_IMAGE_FILES_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { URI_MAPPED_PATH_BYTES = 288 };

// Maps an image URI to a path of this card's file system; the file need not exist.
//   uri         NUL-terminated text
//   out_buffer  URI_MAPPED_PATH_BYTES bytes that may receive the path
// The path (NUL-terminated, in out_buffer or in memory of the service), or null when the URI cannot be mapped.
char *uri_map_targetfs_path_get(const char *uri, char *out_buffer);

// Version text of a boot-loader file, in memory of the service that the next call overwrites; null when the
// file has none.
const char *srg_sw_interim_ver_file_get(const char *path);

// Copies the first length bytes of a file into memory. 0, or the error code (not 0) of what failed; a file with
// fewer bytes is a failure.
int32_t srg_file_clone(void *destination, const char *path, uint32_t length);

#ifdef __cplusplus
}
#endif
#endif
