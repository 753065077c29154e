#include "played_module.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "bios_messages.h"
#include "bios_opcodes.h"
#include "chassis_dir.h"
#include "cmi.h"
#include "endpoints.h"
#include "mts_tools.h"

namespace
{

constexpr std::int32_t NO_ENDPOINT = -1;

// An endpoint has the node of the slot that its process belongs to when it is bound.
std::int32_t bind_as_daemon(const std::string &chassis_directory, unsigned slot)
{
    if (chassis_attach(chassis_directory, slot) != 0)
        throw std::runtime_error("chassis_attach");
    const std::int32_t handle = mts_bind(BIND_KIND, BIOS_DAEMON_SAP, BIND_OPTIONS, "played module");
    const int failure = errno;
    if (chassis_attach(chassis_directory, 0) != 0)
        throw std::runtime_error("chassis_attach");
    if (handle < 0)
        throw std::runtime_error(std::string("endpoint of the played module: ") + std::strerror(failure));
    return handle;
}

} // namespace

played_module::played_module(const std::string &chassis_directory, unsigned slot)
    : handle_(bind_as_daemon(chassis_directory, slot))
{
}

played_module::~played_module()
{
    leave();
}

void played_module::forget_request()
{
    if (request_ != nullptr)
        (void)mts_drop(handle_, request_);
    request_ = nullptr;
}

void played_module::leave()
{
    forget_request();
    if (handle_ != NO_ENDPOINT)
        mts_unbind(handle_);
    handle_ = NO_ENDPOINT;
}

bool played_module::await_request(std::uint32_t opcode, std::chrono::seconds patience)
{
    forget_request();
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (std::chrono::steady_clock::now() < deadline) {
        const auto options = receive_options(1);
        if (mts_recv(handle_, &request_, options.data()) != 0) {
            request_ = nullptr;
            continue;
        }
        (void)mts_saddr_get(request_, &asker_);
        if (mts_opc_get(request_) == opcode)
            return true;
        forget_request();
    }
    return false;
}

std::string played_module::header() const
{
    return {static_cast<const char *>(mts_payload_get(request_)), MTS_REQUEST_HEADER_BYTES};
}

std::string played_module::body() const
{
    const std::uint32_t length = mts_payload_length(request_);
    if (length < MTS_REQUEST_HEADER_BYTES)
        return {};
    return {static_cast<const char *>(mts_payload_get(request_)) + MTS_REQUEST_HEADER_BYTES,
            length - MTS_REQUEST_HEADER_BYTES};
}

void played_module::answer(std::uint32_t status)
{
    const bios_programming_reply_t reply = {};
    if (cmi_response(&reply, sizeof reply, handle_, request_, status) != 0)
        throw std::runtime_error(std::string("answer of the played module: ") + std::strerror(errno));
}

bool played_module::send(std::uint32_t opcode, const std::string &payload)
{
    return mts_send(handle_, asker_.node, asker_.sap, opcode, payload.data(),
                    static_cast<std::uint32_t>(payload.size()), 0, 0, 0) == 0;
}

bool played_module::send_end(std::uint32_t result)
{
    const bios_programming_done_t done{be32::of(result)};
    return send(MTS_OPC_BIOS_PROGRAMMING_DONE, {reinterpret_cast<const char *>(&done), sizeof done});
}
