#include "program_request.h"

#include <algorithm>
#include <bit>

program_request_body encode_program_request(const program_options &options)
{
    bios_programming_req_t request{};
    request.programming_mod_num.store(options.module);
    if (options.image) {
        const std::size_t length = std::min(options.image->size(), IMAGE_URI_BYTES_MAX);
        std::copy_n(options.image->data(), length, request.uri);
    } else {
        request.def.store(1);
    }
    request.type = options.type;
    return std::bit_cast<program_request_body>(request);
}
