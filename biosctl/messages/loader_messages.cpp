#include "loader_messages.h"

#include <algorithm>
#include <cstring>

#include "bios_opcodes.h"
#include "bios_results.h"

daemon_request encode_loader_install_request(const std::string &image_path, bool remove_image)
{
    bios_install_loader_req_t request{};
    std::copy_n(image_path.data(), std::min(image_path.size(), LOADER_IMAGE_PATH_BYTES_MAX), request.image_path);
    request.remove_image.store(remove_image ? 1 : 0);
    return daemon_request_of(MTS_OPC_BIOS_INSTALL_LOADER, request);
}

daemon_request encode_loader_file_request(loader_file file, std::uint32_t length)
{
    const std::uint32_t opcode =
        file == loader_file::loader ? MTS_OPC_BIOS_GET_LOADER_IMAGE : MTS_OPC_BIOS_GET_KS_IMAGE;
    return daemon_request_of(opcode, bios_loader_file_req_t{be32::of(length)});
}

file_answer decode_file_answer(std::vector<std::uint8_t> payload, std::uint32_t length)
{
    bios_loader_file_reply_t head{};
    if (payload.size() < sizeof head)
        return {.understood = false};
    std::memcpy(&head, payload.data(), sizeof head);
    if (head.status.load() != BIOS_OK)
        return {.status = head.status.load()};
    if (head.length.load() != length || payload.size() - sizeof head != length)
        return {.understood = false};
    payload.erase(payload.begin(), payload.begin() + sizeof head);
    return {.content = std::move(payload)};
}
