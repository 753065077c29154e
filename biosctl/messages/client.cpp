#include "client.h"

#include <cerrno>
#include <cstring>

#include "agent_messages.h"
#include "bios_opcodes.h"
#include "cmi.h"
#include "endpoints.h"
#include "free_block.h"
#include "mts_tools.h"

namespace
{

constexpr const char *ENDPOINT_NAME = "biosctl";

} // namespace

bool received_message::is_from_daemon(std::uint32_t node) const
{
    return source.node == node && source.sap == BIOS_DAEMON_SAP;
}

std::optional<std::uint32_t> received_message::word(std::size_t offset) const
{
    be32 value{};
    if (payload.size() < sizeof value || offset > payload.size() - sizeof value)
        return std::nullopt;
    std::memcpy(&value, payload.data() + offset, sizeof value);
    return value.load();
}

client_endpoint::client_endpoint() : handle_(mts_bind(BIND_KIND, ANY_SAP, BIND_OPTIONS, ENDPOINT_NAME)) {}

client_endpoint::~client_endpoint()
{
    if (bound())
        mts_unbind(handle_);
}

bool client_endpoint::listen(std::uint32_t opcode)
{
    return mts_listen(handle_, opcode) == 0;
}

request_answer client_endpoint::request(std::uint32_t node, const daemon_request &request, unsigned wait_limit_s)
{
    return ask({node, BIOS_DAEMON_SAP}, request.opcode, request.body, wait_limit_s);
}

request_answer client_endpoint::request_agent(std::uint32_t node, std::uint32_t opcode,
                                              std::span<const std::uint8_t> body, unsigned wait_limit_s)
{
    return ask({node, AGENT_SAP}, opcode, body, wait_limit_s);
}

request_answer client_endpoint::ask(mts_address_t to, std::uint32_t opcode, std::span<const std::uint8_t> body,
                                    unsigned wait_limit_s)
{
    void *block = nullptr;
    auto length = static_cast<std::uint32_t>(body.size());
    errno = 0;
    const std::uint8_t nothing = 0;
    const std::int32_t result =
        cmi_remote_req_resp(opcode, REQUEST_TYPE, body.empty() ? &nothing : body.data(), &block, &length,
                            ENDPOINT_NAME, ENDPOINT_NAME, to.sap, to.node, handle_, wait_limit_s);
    const int error = errno;
    const owned_block<void> owned(block);
    if (result == -1)
        return {.error = error};
    request_answer answer{.answered = true, .status = static_cast<std::uint32_t>(result)};
    if (result == 0 && block != nullptr) {
        const auto *bytes = static_cast<const std::uint8_t *>(block);
        answer.payload.assign(bytes, bytes + length);
    }
    return answer;
}

mts_address_t client_endpoint::address() const
{
    mts_address_t address{};
    (void)mts_own_address(handle_, &address); // fails for an endpoint that is not bound only
    return address;
}

int client_endpoint::descriptor() const
{
    return mts_descriptor(handle_);
}

std::optional<received_message> client_endpoint::receive(unsigned wait_limit_s)
{
    const auto options = receive_options(wait_limit_s);
    mts_message_t *msg = nullptr;
    if (mts_recv(handle_, &msg, options.data()) != 0)
        return std::nullopt;
    received_message message;
    message.opcode = mts_opc_get(msg);
    (void)mts_saddr_get(msg, &message.source); // fails for null only
    const auto *bytes = static_cast<const std::uint8_t *>(mts_payload_get(msg));
    message.payload.assign(bytes, bytes + mts_payload_length(msg));
    (void)mts_drop(handle_, msg);
    return message;
}

daemon_probe::daemon_probe(std::uint32_t node) : node_(node), first_(mts_peer_at(node, BIOS_DAEMON_SAP)) {}

bool daemon_probe::alive() const
{
    return first_ && first_ == mts_peer_at(node_, BIOS_DAEMON_SAP);
}

bool daemon_serves(std::uint32_t node)
{
    return mts_is_bound(node, BIOS_DAEMON_SAP);
}

std::string no_answer_text(int error)
{
    switch (error) {
    case ECONNREFUSED:
        return "no daemon serves there";
    case ECONNRESET:
        return "the daemon ended while it was asked";
    case EOPNOTSUPP:
        return "the daemon rejected the request";
    case MTS_ERRNO_TIMED_OUT:
        return "the daemon did not answer in time";
    default:
        return std::string("the request could not be sent: ") + std::strerror(error);
    }
}
