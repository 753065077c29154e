// Opcodes of the messages that the daemon serves and sends.
#pragma once

#include <cstdint>

enum bios_opcode : std::uint32_t {
    MTS_OPC_BIOS_INSTALL_LOADER = 4700,       // served: boot-loader installation
    MTS_OPC_BIOS_GET_LOADER_IMAGE = 4701,     // served: read of the installed loader file
    MTS_OPC_BIOS_GET_KS_IMAGE = 4702,         // served: read of "/etc/srg-ks.sro"
    MTS_OPC_BIOS_MODULE_LOCK = 4703,          // served: module lock and unlock for a peer
    MTS_OPC_BIOS_GET_SRC_BIOS_VERSION = 4789, // served: versions in the image tree or in a system image
    MTS_OPC_BIOS_GET_MOD_BIOS_VERSION = 4790, // served: versions of one module
    MTS_OPC_BIOS_PROGRAMMING_START = 4791,    // served, and forwarded to the target module
    MTS_OPC_BIOS_PROGRAMMING_NOTIFY = 4792,   // sent by the active supervisor when a programming has ended
    MTS_OPC_BIOS_PROGRAMMING_DONE = 4793,     // sent to the requester by a module that is not the active supervisor
    MTS_OPC_BIOS_GET_LC_BIOS_VERSION = 4794,  // served, and sent to other modules
    MTS_OPC_BIOS_PROGRAMMING_PROGRESS = 4795, // sent by the flash service while it programs, relayed by the child
    MTS_OPC_BIOS_SRC_VERSION_PROGRESS = 4698, // sent while source versions are collected
};

constexpr std::uint32_t BIOS_DAEMON_SAP = 1010; // service access point of the daemon
