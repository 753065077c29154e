#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "chassis_dir.h"
#include "datagram_surroundings.h"
#include "unix_sockets_driver.h"

const datagram_driver &tested_datagram_driver = unix_sockets_driver;

namespace
{

std::string chassis;

} // namespace

void make_network()
{
    char name[] = "/tmp/datagram-driver-XXXXXX";
    if (::mkdtemp(name) == nullptr || chassis_attach(name, 1) != 0)
        throw std::runtime_error("no folder for a chassis");
    chassis = name;
}

void remove_network()
{
    std::filesystem::remove_all(chassis);
}

std::uint32_t network_node(unsigned number)
{
    return number == 0 ? 0x101 : 0x202;
}
