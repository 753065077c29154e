// The peer's side: one line, one call of the platform.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <iostream>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "cmi.h"
#include "daemon_node.h"
#include "endpoints.h"
#include "hex.h"
#include "modlock.h"
#include "mts.h"
#include "peer.h"
#include "pfm.h"

namespace
{

constexpr std::uint32_t WAIT_S = 30;
constexpr std::size_t SHOWN_BODY_BYTES = 32;
constexpr std::uint32_t NEWS_OPCODE = 4795;
constexpr unsigned CHILD_LIFE_S = 60; // unless the test ends it before
constexpr std::uint32_t LOCK_REQUEST[4] = {1, 0, 0, 0x4071000b};

std::int32_t own_handle = -1;

std::string outcome(std::int32_t result)
{
    return result == 0 ? "ok" : "errno " + std::to_string(errno);
}

std::string tell_node()
{
    platform_info_t own{};
    std::vector<pfm_module_record_t> records(PFM_MODULE_COUNT);
    if (get_platform_info(&own) != 0 ||
        pfm_get_all_modules_in_chassis(own_handle, records.data(), PFM_MODULE_COUNT) < 0 || own.module_num == 0)
        return "errno " + std::to_string(errno);
    const bool supervisor = is_supervisor_kind(records[own.module_num - 1U].kind);
    return "node " + std::to_string(daemon_node(own.module_num, supervisor));
}

std::string bind_endpoint(std::istream &words)
{
    std::int32_t sap = 0;
    words >> sap;
    own_handle = mts_bind(BIND_KIND, sap, BIND_OPTIONS, "contract peer");
    return own_handle >= 0 ? "ok" : "errno " + std::to_string(errno);
}

std::string send_message(std::istream &words)
{
    std::uint32_t node = 0;
    std::uint32_t sap = 0;
    std::uint32_t opcode = 0;
    std::string hex;
    words >> node >> sap >> opcode >> hex;
    const std::string payload = bytes_of_hex(hex);
    return outcome(mts_send(own_handle, node, sap, opcode, payload.data(),
                            static_cast<std::uint32_t>(payload.size()), 0, 0, 0));
}

mts_message_t *next_message()
{
    const std::uint32_t options[10] = {1, 0, WAIT_S};
    mts_message_t *message = nullptr;
    return mts_recv(own_handle, &message, options) == 0 ? message : nullptr;
}

std::string described(const char *what, mts_message_t *message, std::size_t offset, std::size_t count)
{
    mts_address_t sender{};
    if (mts_saddr_get(message, &sender) != 0)
        return "no sender";
    const auto *payload = static_cast<const char *>(mts_payload_get(message));
    std::ostringstream line;
    line << what << " " << mts_opc_get(message) << " " << sender.node << " " << sender.sap << " "
         << hex_of({payload + offset, count});
    return line.str();
}

std::string receive_message(std::istream &words)
{
    std::size_t offset = 0;
    std::size_t count = 0;
    words >> offset >> count;
    mts_message_t *message = next_message();
    if (message == nullptr)
        return "errno " + std::to_string(errno);
    const std::string line = described("message", message, offset, count);
    (void)mts_drop(own_handle, message);
    return line;
}

std::int32_t respond(mts_message_t *message, const std::string &payload, std::uint32_t status = 0)
{
    return cmi_response(payload.data(), static_cast<std::uint32_t>(payload.size()), own_handle, message, status);
}

// Before the answer, as a progress message of a module may come before its answer.
std::int32_t send_news(mts_message_t *message, std::uint32_t sap)
{
    mts_address_t sender{};
    (void)mts_saddr_get(message, &sender);
    return mts_send(own_handle, sender.node, sap, NEWS_OPCODE, "news", 4, 0, 0, 0);
}

std::int32_t answer_request(mts_message_t *message, std::istream &words)
{
    std::string way;
    words >> way;
    if (way == "reject")
        return mts_respond_reject(own_handle, 0, 0, message, 0, 0);
    if (way == "nothing")
        return cmi_response(nullptr, 99, own_handle, message, 0);
    if (way == "bytes") {
        std::string hex;
        words >> hex;
        return respond(message, bytes_of_hex(hex));
    }
    std::uint32_t number = 0;
    words >> number;
    if (way == "late") {
        (void)::sleep(number);
        return respond(message, "late");
    }
    if (way == "status")
        return respond(message, "failed", number);
    if (way == "news" && send_news(message, number) == 0)
        return respond(message, "answer");
    if (way == "echo") {
        const auto *body = static_cast<const char *>(mts_payload_get(message)) + MTS_REQUEST_HEADER_BYTES;
        return respond(message, std::string(body, number));
    }
    return way == "silence" ? 0 : -1;
}

std::string answer_next(std::istream &words)
{
    mts_message_t *message = next_message();
    if (message == nullptr)
        return "errno " + std::to_string(errno);
    const std::string line = described("request", message, MTS_REQUEST_HEADER_BYTES, SHOWN_BODY_BYTES);
    const std::int32_t result = answer_request(message, words);
    const int failure = errno;
    (void)mts_drop(own_handle, message);
    return result == 0 ? line : "errno " + std::to_string(failure);
}

std::string change_lock(std::istream &words, bool take)
{
    std::uint32_t node_id = 0;
    words >> node_id;
    return outcome(take ? modlock_module_lock(129, node_id, LOCK_REQUEST) : modlock_module_unlock(129, node_id));
}

// A child like the daemon's: it begins with an endpoint of its own. It must not hold the streams of its parent, at
// whose end the parent's death is seen.
[[noreturn]] void run_child(int bound)
{
    const int nothing = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    ::dup2(nothing, STDIN_FILENO);
    ::dup2(nothing, STDOUT_FILENO);
    const char outcome = mts_bind(1, -1, BIND_OPTIONS, "contract child") >= 0 ? '1' : '0';
    (void)!::write(bound, &outcome, 1);
    (void)::sleep(CHILD_LIFE_S);
    ::_exit(0);
}

std::string leave_child()
{
    int bound[2];
    if (::pipe2(bound, O_CLOEXEC) != 0)
        return "errno " + std::to_string(errno);
    const pid_t child = ::fork();
    if (child == 0)
        run_child(bound[1]);
    ::close(bound[1]);
    char outcome = '0';
    const bool is_bound = child > 0 && ::read(bound[0], &outcome, 1) == 1 && outcome == '1';
    ::close(bound[0]);
    return is_bound ? "child " + std::to_string(child) : "the child has no endpoint";
}

std::string obey(const std::string &command, std::istream &words)
{
    if (command == "node")
        return tell_node();
    if (command == "bind")
        return bind_endpoint(words);
    if (command == "send")
        return send_message(words);
    if (command == "receive")
        return receive_message(words);
    if (command == "answer")
        return answer_next(words);
    if (command == "lock" || command == "unlock")
        return change_lock(words, command == "lock");
    if (command == "fork")
        return leave_child();
    return "unknown command";
}

} // namespace

int run_peer()
{
    (void)modlock_init();
    std::cout << "ready" << std::endl;
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream words(line);
        std::string command;
        words >> command;
        if (command == "end")
            return 0;
        if (command == "die")
            (void)::raise(SIGKILL);
        std::cout << obey(command, words) << std::endl;
    }
    return 0;
}
