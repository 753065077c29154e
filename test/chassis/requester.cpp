#include "requester.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <stdexcept>

#include "bios_opcodes.h"
#include "cmi.h"
#include "endpoints.h"
#include "mts_tools.h"

namespace
{

template<class record>
std::optional<record> record_in(mts_message_t *message)
{
    if (mts_payload_length(message) != sizeof(record))
        return std::nullopt;
    record found;
    std::memcpy(&found, mts_payload_get(message), sizeof found);
    return found;
}

void take_message(programming &seen, mts_message_t *message)
{
    switch (mts_opc_get(message)) {
    case MTS_OPC_BIOS_PROGRAMMING_PROGRESS:
        if (const auto record = record_in<bios_programming_progress_t>(message); record)
            seen.progress.push_back({record->phase.load(), record->percent.load(), record->attempt.load()});
        break;
    case MTS_OPC_BIOS_PROGRAMMING_NOTIFY:
        if (const auto record = record_in<bios_programming_notify_t>(message); record) {
            seen.result = record->result.load();
            seen.module = record->programming_mod_num.load();
        }
        break;
    case MTS_OPC_BIOS_PROGRAMMING_DONE:
        if (const auto record = record_in<bios_programming_done_t>(message); record)
            seen.result = record->result.load();
        break;
    default:
        break;
    }
}

} // namespace

std::ostream &operator<<(std::ostream &out, const programming &seen)
{
    if (seen.error != 0)
        return out << "no answer: " << std::strerror(seen.error);
    out << "answer 0x" << std::hex << seen.answer << ", result ";
    if (seen.result)
        out << "0x" << *seen.result << std::dec << " for module " << seen.module.value_or(0);
    else
        out << "none" << std::dec;
    if (seen.progress.empty())
        return out << ", no progress";
    return out << ", progress " << seen.progress.front().percent << ".." << seen.progress.back().percent
               << ", attempt " << seen.progress.back().attempt;
}

bios_programming_req_t programming_request(std::uint32_t module, const programming_options &options)
{
    bios_programming_req_t request = {};
    request.programming_mod_num.store(module);
    request.def.store(options.uri ? 0 : 1);
    if (options.uri)
        options.uri->copy(request.uri, sizeof request.uri); // unterminated when it fills the field
    request.type = options.type;
    return request;
}

requester::requester() : handle_(mts_bind(BIND_KIND, ANY_SAP, BIND_OPTIONS, "chassis test"))
{
    if (handle_ < 0 || mts_listen(handle_, MTS_OPC_BIOS_PROGRAMMING_NOTIFY) != 0)
        throw std::runtime_error(std::string("endpoint of the test: ") + std::strerror(errno));
}

requester::~requester()
{
    mts_unbind(handle_);
}

programming requester::start(std::uint32_t module, const programming_options &options)
{
    const bios_programming_req_t body = programming_request(module, options);
    programming seen;
    asked_ = std::chrono::steady_clock::now();
    const auto answer = request(options.via, MTS_OPC_BIOS_PROGRAMMING_START,
                                {reinterpret_cast<const char *>(&body), sizeof body}, seen.error);
    seen.answer = answer.value_or(0);
    return seen;
}

void requester::await_end(programming &seen, std::chrono::seconds patience)
{
    (void)await_progress(
        seen, [](const programming &) { return false; }, patience);
    seen.elapsed = std::chrono::steady_clock::now() - asked_;
}

void requester::take_progress(programming &seen)
{
    while (receive_one(seen, 0)) {
    }
}

bool requester::receive_one(programming &seen, unsigned wait_limit_s)
{
    const auto options = receive_options(wait_limit_s);
    mts_message_t *message = nullptr;
    if (mts_recv(handle_, &message, options.data()) != 0)
        return false;
    take_message(seen, message);
    (void)mts_drop(handle_, message);
    return true;
}

request_reply requester::ask(unsigned slot, std::uint32_t opcode, const std::string &body, unsigned wait_limit_s)
{
    void *answer = nullptr;
    auto length = static_cast<std::uint32_t>(body.size());
    const std::int32_t status =
        cmi_remote_req_resp(opcode, REQUEST_TYPE, body.data(), &answer, &length, "test", "test", BIOS_DAEMON_SAP,
                            mts_node_of_slot(slot), handle_, wait_limit_s);
    request_reply reply;
    reply.error = status == -1 ? errno : 0;
    if (status != -1)
        reply.status = static_cast<std::uint32_t>(status);
    if (answer != nullptr)
        reply.payload.assign(static_cast<const char *>(answer), length);
    std::free(answer);
    return reply;
}

std::optional<std::uint32_t> requester::request(unsigned slot, std::uint32_t opcode, const std::string &body,
                                                int &error, unsigned wait_limit_s)
{
    const request_reply reply = ask(slot, opcode, body, wait_limit_s);
    error = reply.error;
    return error == 0 ? std::optional(reply.status) : std::nullopt;
}

mts_address_t requester::address() const
{
    mts_address_t own = {};
    if (mts_own_address(handle_, &own) != 0)
        throw std::runtime_error("address of the test's endpoint");
    return own;
}

unsigned requester::take_waiting(std::uint32_t opcode)
{
    const auto options = receive_options(0);
    unsigned count = 0;
    mts_message_t *message = nullptr;
    while (mts_recv(handle_, &message, options.data()) == 0) {
        count += mts_opc_get(message) == opcode ? 1U : 0U;
        (void)mts_drop(handle_, message);
    }
    return count;
}

bool requester::send(unsigned slot, std::uint32_t opcode, const void *payload, std::uint32_t length)
{
    return mts_send(handle_, mts_node_of_slot(slot), BIOS_DAEMON_SAP, opcode, payload, length, 0, 0, 0) == 0;
}
