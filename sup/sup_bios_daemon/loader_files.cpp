#include "loader_files.h"

#include <cstddef>
#include <cstdlib>

#include "bios_messages.h"
#include "bios_results.h"
#include "cmi.h"
#include "free_block.h"
#include "image_files.h"
#include "loader_partition.h"
#include "request_body.h"

namespace
{

constexpr const char *KS_FILE = "/etc/srg-ks.sro";

// No block of the 32-bit target is larger; a length that overflows with the header's bytes is larger, too.
constexpr std::uint32_t LARGEST_BLOCK_BYTES = 0x7fffffff;

// Copies the first length bytes of a file. 0, or the status of the answer.
using file_source = std::uint32_t (*)(void *destination, std::uint32_t length);

std::uint32_t clone_installed_loader(void *destination, std::uint32_t length)
{
    if (!mount_loader_partition())
        return BIOS_LOADER_ERR_MOUNT;
    const std::int32_t result = srg_file_clone(destination, INSTALLED_LOADER_FILE, length);
    unmount_loader_partition();
    return static_cast<std::uint32_t>(result);
}

std::uint32_t clone_ks(void *destination, std::uint32_t length)
{
    return static_cast<std::uint32_t>(srg_file_clone(destination, KS_FILE, length));
}

void answer_failure(const daemon_context &context, mts_message_t *message, std::uint32_t status)
{
    const bios_loader_file_reply_t reply{be32::of(status), be32::of(0)};
    (void)cmi_response(&reply, sizeof reply, context.handle, message, 0);
}

void answer_with_file(daemon_context &context, mts_message_t *message, file_source clone)
{
    context.payload = mts_payload_get(message);
    const std::uint32_t length = request_body<bios_loader_file_req_t>(context.payload).length.load();

    constexpr std::uint32_t HEADER_BYTES = sizeof(bios_loader_file_reply_t);
    if (length > LARGEST_BLOCK_BYTES - HEADER_BYTES)
        return answer_failure(context, message, BIOS_LOADER_FILE_NO_MEMORY);
    const owned_block<std::uint8_t> block(static_cast<std::uint8_t *>(std::malloc(length + HEADER_BYTES)));
    if (block == nullptr)
        return answer_failure(context, message, BIOS_LOADER_FILE_NO_MEMORY);
    if (const std::uint32_t status = clone(block.get() + HEADER_BYTES, length); status != BIOS_OK)
        return answer_failure(context, message, status);

    auto *reply = reinterpret_cast<bios_loader_file_reply_t *>(block.get());
    reply->status = be32::of(BIOS_OK);
    reply->length = be32::of(length);
    (void)cmi_response(block.get(), length + HEADER_BYTES, context.handle, message, 0);
}

} // namespace

std::uint32_t handle_get_loader_image(daemon_context &context, mts_message_t *message)
{
    answer_with_file(context, message, clone_installed_loader);
    return BIOS_OK;
}

std::uint32_t handle_get_ks_image(daemon_context &context, mts_message_t *message)
{
    answer_with_file(context, message, clone_ks);
    return BIOS_OK;
}
