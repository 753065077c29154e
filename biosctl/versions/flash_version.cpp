#include "flash_version.h"

#include "bios_results.h"
#include "client.h"
#include "inventory.h"
#include "version_records.h"

std::string read_flash_version(unsigned serving_slot, unsigned module, unsigned timeout_s)
{
    client_endpoint endpoint;
    if (!endpoint.bound())
        return {};
    const request_answer answer =
        endpoint.request(node_of_module(serving_slot), encode_module_version_request(module), timeout_s);
    if (!answer.answered || answer.status != BIOS_OK)
        return {};
    const module_versions_answer versions = decode_module_versions(answer.payload, module);
    return versions.entries.empty() ? std::string() : versions.entries.front().flash;
}
