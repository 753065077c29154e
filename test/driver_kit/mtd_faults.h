// Errors on demand of an MTD whose kernel module has them, as faulty_chip of chassis/machine/kernel has. The
// environment variable BIOS_DAEMON_TEST_MTD_FAULTS names the folder of the module's parameters.
#pragma once

#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>

constexpr const char *MTD_FAULTS_VARIABLE = "BIOS_DAEMON_TEST_MTD_FAULTS";
constexpr long long NOWHERE = -1;

inline bool has_mtd_faults()
{
    return std::getenv(MTD_FAULTS_VARIABLE) != nullptr;
}

// Has one kind of operation fail at a byte, or at none. REQUIRES: has_mtd_faults().
inline void set_mtd_fault(const char *parameter, long long place)
{
    const std::string path = std::string(std::getenv(MTD_FAULTS_VARIABLE)) + "/" + parameter;
    std::ofstream file(path);
    if (!(file << place << std::endl))
        throw std::runtime_error(path);
}

inline void clear_mtd_faults()
{
    for (const char *parameter : {"erase_fails_at", "write_fails_at", "read_fails_at", "locked_at"})
        set_mtd_fault(parameter, NOWHERE);
}
