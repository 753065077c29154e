#include "image_check.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>

#include "regular_file.h"
#include "trusted_keys.h"
#include "unique_fd.h"

namespace
{

// The file that is to be programmed, opened as the programming does it: a regular file under that very name.
unique_fd open_image(const char *path)
{
    return if_regular(unique_fd(::open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)));
}

agent_verified_t record_of(const image_reading &reading)
{
    agent_verified_t verified{};
    verified.size_bytes = be64::of(reading.size_bytes);
    std::copy(reading.sha256.begin(), reading.sha256.end(), verified.sha256);
    const image_key_id &key_id = *reading.manifest.key_id;
    static_assert(sizeof key_id == sizeof verified.key_id);
    std::copy(key_id.begin(), key_id.end(), verified.key_id);
    verified.family = be32::of(reading.manifest.family);
    verified.security_version = be32::of(reading.manifest.security_version);
    return verified;
}

} // namespace

agent_status signature_status_of(image_signature_state state)
{
    switch (state) {
    case image_signature_state::good:
        return AGENT_OK;
    case image_signature_state::damaged_manifest:
        return AGENT_ERR_MANIFEST;
    case image_signature_state::not_signed:
        return AGENT_ERR_NOT_SIGNED;
    case image_signature_state::unknown_key:
        return AGENT_ERR_KEY_UNKNOWN;
    case image_signature_state::revoked_key:
        return AGENT_ERR_KEY_REVOKED;
    case image_signature_state::bad:
        break;
    }
    return AGENT_ERR_SIGNATURE;
}

answer verified_answer(const agent_verify_req_t &request)
{
    const field_text path(request.path);
    if (path.text[0] != '/' || std::strlen(path.text) == AGENT_PATH_BYTES)
        return AGENT_ERR_REQUEST;
    const unique_fd file = open_image(path.text);
    if (!file)
        return AGENT_ERR_IMAGE_FILE;
    trusted_keys keys;
    std::string problem;
    if (!trusted_keys_load(keys, problem))
        return AGENT_ERR_KEYS;
    image_reading reading;
    const auto state = check_image_signature(file.get(), keys, reading);
    if (!state)
        return errno == EFBIG ? AGENT_ERR_IMAGE_SIZE : AGENT_ERR_UNREADABLE;
    if (*state != image_signature_state::good)
        return signature_status_of(*state);
    answer verified;
    verified.add(record_of(reading));
    return verified;
}
