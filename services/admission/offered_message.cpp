// What becomes of a received message before the daemon serves it.
#include <algorithm>
#include <iterator>

#include "admission.h"
#include "bios_opcodes.h"
#include "bios_results.h"
#include "c_boundary.h"
#include "chassis_diagnostics.h"
#include "cmi.h"
#include "loader_removal.h"
#include "message_texts.h"
#include "programming_admission.h"
#include "sdwrap.h"

namespace
{

struct admission_row {
    std::uint32_t opcode;
    admission_check check;
};

constexpr admission_row ROWS[] = {
    {MTS_OPC_BIOS_INSTALL_LOADER, admit_loader},
    {MTS_OPC_BIOS_GET_SRC_BIOS_VERSION, admit_source_version},
    {MTS_OPC_BIOS_PROGRAMMING_START, admit_programming},
};

constexpr std::int32_t TO_BE_SERVED = 1;
constexpr std::int32_t CONSUMED = 0;

// Without memory for the check nothing is served: it is what keeps a flash from a wrong image.
std::optional<refusal> checked(std::int32_t handle, mts_message_t *message, admission_check check)
{
    return c_boundary(std::optional(refusal{BIOS_ERR_NO_MEMORY, nullptr, 0}),
                      [&] { return check(handle, message); });
}

} // namespace

int32_t sdwrap_process_msg(int32_t handle, mts_message_t *message)
{
    if (message == nullptr)
        return CONSUMED; // nothing to serve
    const std::uint32_t opcode = mts_opc_get(message);
    if (opcode == CHASSIS_OPC_DEBUG_CONTROL) {
        chassis_debug_flags_have_changed();
        return CONSUMED;
    }
    const auto *row = std::find_if(std::begin(ROWS), std::end(ROWS),
                                   [opcode](const admission_row &one) { return one.opcode == opcode; });
    if (const auto refused = row != std::end(ROWS) ? checked(handle, message, row->check) : std::nullopt; refused) {
        // Who has asked may be gone.
        (void)cmi_response(refused->payload, refused->payload_bytes, handle, message, refused->status);
        return CONSUMED;
    }
    make_texts_printable(*message);
    return TO_BE_SERVED;
}
