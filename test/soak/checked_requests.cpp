#include "checked_requests.h"

#include <array>
#include <cerrno>
#include <cstring>

#include "bios_messages.h"
#include "bios_opcodes.h"
#include "version_messages.h"

namespace
{

constexpr unsigned WAIT_LIMIT_S = 120;
constexpr unsigned FULL_ANSWER_ENTRIES = 3; // two rows, and the one that is counted and left empty
constexpr std::uint32_t CARD_NODES[] = {0x302, 0x402};
constexpr std::uint32_t LOCK_REFUSED = 0x80000000;
constexpr std::size_t FILE_BYTES_MOST = 2000;
constexpr std::size_t VERSION_FIELD_BYTES = sizeof(bios_version_entry::cur);

// Of a thousand requests.
enum class kind { short_module, full_module, standby, absent, own, unknown, lock, card, ks, loader };
struct share {
    kind asked;
    unsigned per_mille;
};
constexpr share SHARES[] = {
    {kind::short_module, 300}, {kind::full_module, 200}, {kind::standby, 145},
    {kind::absent, 50},        {kind::own, 5},           {kind::unknown, 100},
    {kind::lock, 100},         {kind::card, 60},         {kind::ks, 38},
    {kind::loader, 2},
};

constexpr unsigned sum_of_shares()
{
    unsigned sum = 0;
    for (const share &part : SHARES)
        sum += part.per_mille;
    return sum;
}
static_assert(sum_of_shares() == 1000);

kind kind_of(unsigned number)
{
    for (const share &part : SHARES) {
        if (number < part.per_mille)
            return part.asked;
        number -= part.per_mille;
    }
    return kind::unknown;
}

std::uint32_t word_at(const std::string &bytes, std::size_t place)
{
    be32 word;
    std::memcpy(&word, bytes.data() + place, sizeof word);
    return word.load();
}

// One of the two that a flash of the supervisors can hold; while it is programmed, the running one stands for it.
bool is_known_version(const char *field)
{
    const std::string text(field, ::strnlen(field, VERSION_FIELD_BYTES));
    return text == old_image().version || text == new_image().version;
}

// What two fields of an answer tell: the version in the flash and the one that runs.
bool tells_known_versions(const std::string &payload, std::size_t flash_place, std::size_t running_place)
{
    return is_known_version(payload.data() + flash_place) && is_known_version(payload.data() + running_place);
}

std::string full_answer_of_standin()
{
    const told_versions versions = {old_image().version, old_image().version};
    const told_versions second = {old_image().version, old_image().version, "swid-bios-2"};
    return module_version_header(FULL_ANSWERS, FULL_ANSWER_ENTRIES, OWN_CARD_ID) + version_entry(versions) +
           version_entry(second) + std::string(sizeof(bios_version_entry), '\0');
}

bool is_documented_refusal(std::uint32_t operation, std::uint32_t result)
{
    if (operation == BIOS_MODULE_LOCK_TAKE)
        return result == (LOCK_REFUSED | EBUSY);
    return result == (LOCK_REFUSED | EPERM) || result == (LOCK_REFUSED | ENOENT);
}

} // namespace

checked_requests::checked_requests(std::uint32_t seed, std::string loader, std::string ks)
    : random_(seed),
      loader_(std::move(loader)),
      ks_(std::move(ks))
{
}

request_end checked_requests::ask_one(std::string &what_out)
{
    switch (kind_of(random_() % 1000)) {
    case kind::short_module:
        return ask_module(SHORT_ANSWERS, what_out);
    case kind::full_module:
        return ask_module(FULL_ANSWERS, what_out);
    case kind::absent:
        return ask_module(EMPTY_SLOT, what_out);
    case kind::standby:
        return ask_own_or_standby(STANDBY, what_out);
    case kind::own:
        return ask_own_or_standby(ACTIVE, what_out);
    case kind::lock:
        return ask_lock(what_out);
    case kind::card:
        return ask_card_version(what_out);
    case kind::ks:
        return ask_file(MTS_OPC_BIOS_GET_KS_IMAGE, ks_, what_out);
    case kind::loader:
        return ask_file(MTS_OPC_BIOS_GET_LOADER_IMAGE, loader_, what_out);
    case kind::unknown:
        break;
    }
    return ask_unknown(what_out);
}

request_reply checked_requests::ask(unsigned slot, std::uint32_t opcode, const std::string &body)
{
    return requester_.ask(slot, opcode, body, WAIT_LIMIT_S);
}

request_end checked_requests::judged(const request_reply &reply, bool right, const std::string &asked,
                                     std::string &what_out)
{
    if (reply.error == 0 && right)
        return request_end::served;
    what_out = asked + ": ";
    if (reply.error != 0) {
        what_out += std::strerror(reply.error);
        return request_end::lost;
    }
    what_out += "status " + std::to_string(reply.status) + ", " + std::to_string(reply.payload.size()) + " bytes";
    return request_end::wrong;
}

request_end checked_requests::ask_module(unsigned module, std::string &what_out)
{
    const request_reply reply = ask(ACTIVE, MTS_OPC_BIOS_GET_MOD_BIOS_VERSION, module_version_request(module));
    static const std::string short_answer =
        module_version_answer(SHORT_ANSWERS, FORWARDED_KIND, {old_image().version, old_image().version});
    static const std::string full_answer = full_answer_of_standin();
    const bool right = module == EMPTY_SLOT ? reply.payload.size() == VERSION_FAILURE_BYTES &&
                                                  reply.payload.starts_with(version_failure(EMPTY_SLOT))
                                            : reply.payload.size() > sizeof(be32) &&
                                                  reply.payload.substr(sizeof(be32)) ==
                                                      (module == SHORT_ANSWERS ? short_answer : full_answer);
    return judged(reply, right, "versions of module " + std::to_string(module), what_out);
}

request_end checked_requests::ask_own_or_standby(unsigned module, std::string &what_out)
{
    const request_reply reply = ask(ACTIVE, MTS_OPC_BIOS_GET_MOD_BIOS_VERSION, module_version_request(module));
    constexpr std::size_t ENTRY = sizeof(bios_new_vers_message);
    const bool right = reply.payload.size() == ENTRY + sizeof(bios_version_entry) &&
                       reply.payload.compare(sizeof(be32), ENTRY - sizeof(be32),
                                             module_version_header(module, 1, OWN_CARD_ID)) == 0 &&
                       tells_known_versions(reply.payload, ENTRY + offsetof(bios_version_entry, cur),
                                            ENTRY + offsetof(bios_version_entry, run));
    return judged(reply, right, "versions of module " + std::to_string(module), what_out);
}

request_end checked_requests::ask_card_version(std::string &what_out)
{
    const request_reply reply = ask(STANDBY, MTS_OPC_BIOS_GET_LC_BIOS_VERSION, "ABCD");
    const bool right = reply.payload.size() == sizeof(bios_compat_version_msg_t) &&
                       tells_known_versions(reply.payload, offsetof(bios_get_lc_version_t, cur),
                                            offsetof(bios_get_lc_version_t, run));
    return judged(reply, right, "own versions of the standby supervisor", what_out);
}

request_end checked_requests::ask_unknown(std::string &what_out)
{
    constexpr std::uint32_t UNSERVED = 4600;
    const request_reply reply = ask(ACTIVE, UNSERVED + random_() % 90, std::string(random_() % 700, 'x'));
    if (reply.error == EOPNOTSUPP)
        return request_end::refused;
    return judged(reply, false, "an opcode that is not served", what_out);
}

// Both supervisors' daemons are asked to lock the same modules: one of them gets the lock.
request_end checked_requests::ask_lock(std::string &what_out)
{
    const std::uint32_t operation = random_() % 2 != 0 ? BIOS_MODULE_LOCK_TAKE : BIOS_MODULE_LOCK_RELEASE;
    const std::string body = be32_bytes(operation) + be32_bytes(CARD_NODES[random_() % std::size(CARD_NODES)]);
    const request_reply reply = ask(random_() % 4 != 0 ? ACTIVE : STANDBY, MTS_OPC_BIOS_MODULE_LOCK, body);
    const bool whole = reply.payload.size() == sizeof(bios_module_lock_reply_t) && reply.payload.starts_with(body);
    const std::uint32_t result = whole ? word_at(reply.payload, offsetof(bios_module_lock_reply_t, result)) : 0;
    if (reply.error == 0 && whole && is_documented_refusal(operation, result))
        return request_end::refused;
    return judged(reply, whole && result == 0, "lock operation " + std::to_string(operation), what_out);
}

request_end checked_requests::ask_file(std::uint32_t opcode, const std::string &file, std::string &what_out)
{
    const std::size_t length = random_() % FILE_BYTES_MOST;
    const auto length_word = be32_bytes(static_cast<std::uint32_t>(length));
    const request_reply reply = ask(ACTIVE, opcode, length_word);
    const bool right = reply.payload == be32_bytes(0) + length_word + file.substr(0, length);
    return judged(reply, right, "file of opcode " + std::to_string(opcode), what_out);
}
