// On a card that has the kernel's cluster transport and a chassis key. The cluster is everybody's: each process of
// the kit has nodes of its own.
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <unistd.h>

#include "chassis_dir.h"
#include "datagram_surroundings.h"
#include "tipc_driver.h"

const datagram_driver &tested_datagram_driver = tipc_driver;

namespace
{

std::string folder;

} // namespace

void make_network()
{
    char name[] = "/tmp/datagram-driver-XXXXXX";
    if (::mkdtemp(name) == nullptr || chassis_attach(name, 1) != 0)
        throw std::runtime_error("no folder for the card");
    folder = name;
}

void remove_network()
{
    std::filesystem::remove_all(folder);
}

std::uint32_t network_node(unsigned number)
{
    static const auto process = static_cast<std::uint32_t>(::getpid());
    return process * 256 + number + 1;
}
