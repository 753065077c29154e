#include "flash_version.h"

#include "agents.h"
#include "inventory.h"

std::string read_flash_version(unsigned module)
{
    const request_answer answer = ask_for_versions(node_of_module(module));
    const auto versions = decode_versions(answer.payload);
    return versions && !versions->flashes.empty() ? versions->flashes.front().version : std::string();
}
