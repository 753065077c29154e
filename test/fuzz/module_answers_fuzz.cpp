// Answers of a module into the collection of its versions, through the transport's iterator over TLVs. Whatever a
// module answers, the requester gets one answer: a failure record, or as many entries as the answer says, each text
// ended in its field.
//
//   decisions | module, kind (1 byte) | answer
#include <cstring>

#include "bios_messages.h"
#include "fuzz_platform.h"
#include "module_version.h"
#include "open_descriptor_check.h"

namespace
{

constexpr std::int32_t HANDLE = 7;
constexpr std::uint32_t MODULE = 9;
constexpr std::size_t FIELD_BYTES = 128;

bool ends_in_field(const char (&field)[FIELD_BYTES])
{
    return field[FIELD_BYTES - 1] == '\0';
}

void expect_answer(const void *payload, std::uint32_t length)
{
    require(payload != nullptr && length >= sizeof(bios_new_vers_message), "an answer has its header");
    bios_new_vers_message header;
    std::memcpy(&header, payload, sizeof header);
    require(header.module_num.load() == MODULE, "an answer names the module that was asked for");
    const std::uint32_t entries = header.num_entries.load();
    if (length == sizeof(bios_version_failure_t)) {
        require(header.reserved.load() == 0xffffffff && entries == 0, "an answer without entries is a failure");
        return;
    }
    require((length - sizeof header) / sizeof(bios_version_entry) == entries &&
                (length - sizeof header) % sizeof(bios_version_entry) == 0,
            "an answer has as many entries as it says");
    const auto *entry =
        reinterpret_cast<const bios_version_entry *>(static_cast<const char *>(payload) + sizeof header);
    for (std::uint32_t i = 0; i < entries; ++i, ++entry) {
        require(ends_in_field(entry->swid_str) && ends_in_field(entry->cur) && ends_in_field(entry->run),
                "every text ends in its field");
    }
}

void collect(fuzz_platform &platform)
{
    mts_message_t *request = platform.current();
    (void)bios_get_version_info_from_mod(HANDLE, MODULE, request, nullptr, MODULE);
    require(request->answers == 1, "the requester gets an answer");
    platform.drop(request);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    return std::freopen("/dev/null", "w", stdout) == nullptr;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const open_descriptor_check descriptors;
    fuzz_platform platform(fuzz_input(data, size));
    platform.response_sent = expect_answer;
    platform.lend_message({});
    platform.run(collect);
    return 0;
}
