// The daemon's message loop: any messages with any bodies, through the real dispatch and handlers, also in the
// programming child. Whatever comes in, each message is dropped once and answered or rejected once, nothing but
// harmless commands is run, and no descriptor and no block is lost.
//
//   decisions | card, state | message...       message = opcode selector, length (2 bytes), body
#include <array>
#include <cstring>

#include "bios_daemon_state.h"
#include "bios_opcodes.h"
#include "bios_results.h"
#include "card_table.h"
#include "daemon_context.h"
#include "fuzz_platform.h"
#include "message_loop.h"
#include "open_descriptor_check.h"
#include "running_version.h"

namespace
{

constexpr std::int32_t HANDLE = 7;
constexpr std::uint16_t CARD_IDS[] = {90, 106, 109, 107, 183, 282, 222, 182, 271, 272, 314, 316, 318};
constexpr std::uint32_t OPCODES[] = {
    MTS_OPC_BIOS_INSTALL_LOADER,
    MTS_OPC_BIOS_GET_LOADER_IMAGE,
    MTS_OPC_BIOS_GET_KS_IMAGE,
    MTS_OPC_BIOS_MODULE_LOCK,
    MTS_OPC_BIOS_GET_SRC_BIOS_VERSION,
    MTS_OPC_BIOS_GET_MOD_BIOS_VERSION,
    MTS_OPC_BIOS_PROGRAMMING_START,
    MTS_OPC_BIOS_GET_LC_BIOS_VERSION,
    MTS_OPC_BIOS_PROGRAMMING_DONE,
    MTS_OPC_BIOS_PROGRAMMING_PROGRESS,
    MTS_OPC_BIOS_PROGRAMMING_NOTIFY,
    0,
    0xffffffff,
};
constexpr unsigned MOST_MESSAGES = 16;

// The state's bits: supervisor state, what becomes of forks, and whether the history is recorded, which is slow.
constexpr unsigned SUP_STATE_MASK = 0x03;
constexpr unsigned FORK_SHIFT = 5;
constexpr unsigned FORK_MASK = 0x03;
constexpr unsigned RECORDS_HISTORY = 0x80;
constexpr fork_outcome FORK_OUTCOMES[] = {fork_outcome::parent, fork_outcome::child, fork_outcome::failure,
                                          fork_outcome::decided};

// An image that the x86n reader understands.
constexpr std::size_t IMAGE_BYTES = 256;
std::string valid_image()
{
    std::string image(IMAGE_BYTES, ' ');
    image.replace(18, 31, ">>> KORVA SUP_TELMA_OR BIOS <<<");
    image.replace(55, 6, "Sep 17");
    image.replace(77, 9, "2012 3 05");
    return image;
}

bool take_message(fuzz_input &input, mts_message &message)
{
    if (input.at_end())
        return false;
    message.opcode = OPCODES[input.byte() % std::size(OPCODES)];
    const std::uint16_t length = input.word();
    const auto body = input.bytes(length);
    message.payload = std::vector<std::uint8_t>(
        std::max<std::size_t>(MTS_REQUEST_HEADER_BYTES + body.size(), MTS_READABLE_PAYLOAD_BYTES));
    std::copy(body.begin(), body.end(), message.payload.begin() + MTS_REQUEST_HEADER_BYTES);
    return true;
}

void forget_state()
{
    bios_programming_in_progress = 0;
    bios_cmd_program_in_progress = 0;
    src_version_chk = 0;
    module_lock_held = 0;
    std::memset(running_version, 0, sizeof running_version);
}

void serve(fuzz_platform &platform)
{
    (void)mod_bios_version_init(HANDLE);
    daemon_context context = {};
    context.handle = HANDLE;
    context.my_module_num = platform.module_num;
    const std::uint32_t ending = run_message_loop(context);
    require(ending == BIOS_ERR_CARD_ID && platform.leaving_for_card_id,
            "the loop ends only when the own card id is not to be had");
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
    platform.card_id = CARD_IDS[platform.input.byte() % std::size(CARD_IDS)];
    const unsigned state = platform.input.byte();
    platform.sup_state = static_cast<std::int32_t>(state & SUP_STATE_MASK);
    platform.forks = FORK_OUTCOMES[state >> FORK_SHIFT & FORK_MASK];
    platform.records_history = (state & RECORDS_HISTORY) != 0;
    unsigned messages = 0;
    platform.next_message = [&](mts_message &message) {
        return messages++ < MOST_MESSAGES && take_message(platform.input, message);
    };
    platform.opened_file = [&](const char *, int) {
        static const std::string IMAGE = valid_image();
        static const std::string RECORD(BIOS_VERSION_TEXT_BYTES, 'r');
        const unsigned content = platform.decide(4);
        return memory_file(content == 0 ? IMAGE : content == 1 ? RECORD : "");
    };

    forget_state();
    static std::array<char, 16 * BIOS_VERSION_TEXT_BYTES> slots;
    bios_flash_instance = slots.data();
    current_platform = &platform; // for the row list's questions
    const owned_card_table rows(bios_get_card_id_ent(platform.card_id, 0));
    current_platform = nullptr;
    if (rows == nullptr) // refused by a decision
        return 0;
    self_card_id_tbl = rows.get();

    platform.run(serve);
    require(running_version[sizeof running_version - 1] == '\0', "the running version is a text");
    require(bios_programming_in_progress <= 1 && module_lock_held <= 1, "a flag is 0 or 1");
    return 0;
}
