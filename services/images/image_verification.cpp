#include "image_verification.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <unistd.h>

#include "agent_messages.h"
#include "chassis_dir.h"
#include "cmi.h"
#include "endpoints.h"
#include "monotonic_clock.h"
#include "mts_tools.h"
#include "text_field.h"

namespace
{

constexpr unsigned BUSY_PAUSE_US = 100'000;

// An endpoint for this once.
class own_endpoint
{
public:
    own_endpoint() : handle_(mts_bind(BIND_KIND, ANY_SAP, BIND_OPTIONS, "image verification")) {}
    ~own_endpoint()
    {
        if (handle_ >= 0)
            mts_unbind(handle_);
    }
    own_endpoint(const own_endpoint &) = delete;
    own_endpoint &operator=(const own_endpoint &) = delete;

    std::int32_t handle() const { return handle_; }

private:
    std::int32_t handle_;
};

image_verification ask_once(const own_endpoint &endpoint, const agent_verify_req_t &request, std::uint32_t wait_s)
{
    void *payload = nullptr;
    std::uint32_t length = sizeof request;
    const std::int32_t result =
        cmi_remote_req_resp(AGENT_OPC_VERIFY_IMAGE, REQUEST_TYPE, &request, &payload, &length, nullptr, nullptr,
                            AGENT_SAP, mts_node_of_slot(chassis_own_slot()), endpoint.handle(), wait_s);
    const std::unique_ptr<void, decltype(&std::free)> owned(payload, std::free);
    image_verification verified;
    agent_verified_t record;
    if (result != AGENT_OK || payload == nullptr || length != sizeof record) {
        const bool has_reason = result != AGENT_OK && result != -1;
        verified.status = has_reason ? static_cast<std::uint32_t>(result) : AGENT_ERR_UNREADABLE;
        return verified;
    }
    std::memcpy(&record, payload, sizeof record);
    std::copy(std::begin(record.sha256), std::end(record.sha256), verified.sha256.begin());
    verified.family = record.family.load();
    verified.security_version = record.security_version.load();
    return verified;
}

} // namespace

image_verification verify_image(const std::string &path)
{
    agent_verify_req_t request{};
    store_text(request.path, path.c_str());
    const own_endpoint endpoint;
    image_verification verified;
    verified.status = AGENT_ERR_UNREADABLE;
    if (endpoint.handle() < 0 || path.size() >= AGENT_PATH_BYTES)
        return verified;
    const std::int64_t end = monotonic_us() + std::int64_t{IMAGE_VERIFICATION_LIMIT_S} * MICROSECONDS;
    for (std::int64_t left = end - monotonic_us(); left > 0; left = end - monotonic_us()) {
        verified = ask_once(endpoint, request, static_cast<std::uint32_t>(left / MICROSECONDS) + 1);
        if (verified.status != AGENT_ERR_BUSY)
            break;
        (void)::usleep(BUSY_PAUSE_US);
    }
    return verified;
}
