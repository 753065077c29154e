// module_standin: stands in for a module that runs no bios_daemon.
//
// A card runs it in place of the daemon when its description says how it answers (answer_form.h). It has the
// daemon's endpoint and serves one request, MTS_OPC_BIOS_GET_LC_BIOS_VERSION; every other is rejected. The version
// in the flash is read for each answer; the version that runs is the one that was in the flash at the start.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <random>
#include <string>
#include <vector>

#include "answer_form.h"
#include "bios_flash.h"
#include "bios_messages.h"
#include "bios_opcodes.h"
#include "chassis_dir.h"
#include "cmi.h"
#include "endpoints.h"
#include "mts.h"
#include "version_answers.h"

namespace
{

constexpr std::uint32_t RECEIVE_WAIT_S = 60; // nothing is to be done when it passes

[[gnu::format(printf, 1, 2)]] void log(const char *format, ...)
{
    std::va_list values;
    va_start(values, format);
    std::fputs("module_standin: ", stdout);
    (void)std::vprintf(format, values);
    std::putchar('\n');
    va_end(values);
}

class module_standin
{
public:
    module_standin(std::int32_t handle, std::uint32_t seed);
    [[nodiscard]] int serve();

private:
    void take(mts_message_t *message);
    void answer(mts_message_t *message, answer_form form);
    std::vector<std::uint8_t> version_answer(answer_form form);

    std::int32_t handle_;
    std::mt19937 random_;
    std::string running_;
};

std::string flash_version()
{
    char text[BIOS_VERSION_TEXT_BYTES] = {};
    const std::int32_t result = get_bios_flash_version(text, BIOS_FLASH_PRIMARY);
    if (result != 0)
        log("no version in the flash, result %d", static_cast<int>(result));
    return text;
}

// What was written into the files is a person's; nothing in them ends a stand-in that runs.
answer_form form_now()
{
    std::string name;
    if (!chassis_read_file(chassis_slot_path(chassis_own_slot(), ANSWERS_FILE), name))
        return answer_form::daemon;
    const std::string first_line = name.substr(0, name.find('\n'));
    return parse_answer_form(first_line).value_or(answer_form::daemon);
}

std::uint32_t rows_now()
{
    const std::string path = chassis_slot_path(chassis_own_slot(), ANSWER_ROWS_FILE);
    const std::uint32_t rows = chassis_read_value(path, DEFAULT_ANSWER_ROWS);
    return rows >= 1 && rows <= MAX_ANSWER_ROWS ? rows : DEFAULT_ANSWER_ROWS;
}

std::uint32_t seed_of_this_run()
{
    return chassis_read_value(chassis_slot_path(chassis_own_slot(), ANSWER_SEED_FILE), std::random_device()());
}

module_standin::module_standin(std::int32_t handle, std::uint32_t seed)
    : handle_(handle),
      random_(seed),
      running_(flash_version())
{
    log("runs \"%s\"; seed of garbage %lu", running_.c_str(), static_cast<unsigned long>(seed));
}

std::vector<std::uint8_t> module_standin::version_answer(answer_form form)
{
    if (form == answer_form::garbage)
        return garbage_version_answer(random_);
    const module_versions versions = {.flash = flash_version(), .running = running_};
    return form == answer_form::full ? full_version_answer(versions, rows_now()) : short_version_answer(versions);
}

void module_standin::answer(mts_message_t *message, answer_form form)
{
    const std::uint32_t opcode = mts_opc_get(message);
    // A form that is none of a stand-in's takes effect when the card is restarted, and the daemon then serves.
    if (opcode != MTS_OPC_BIOS_GET_LC_BIOS_VERSION || form == answer_form::daemon) {
        log("rejects opcode %u", static_cast<unsigned>(opcode));
        if (mts_respond_reject(handle_, 0, 0, message, 0, 0) != 0)
            log("the rejection could not be sent: %s", std::strerror(errno));
        return;
    }
    const std::vector<std::uint8_t> payload = version_answer(form);
    log("answers with %zu bytes", payload.size());
    if (cmi_response(payload.data(), static_cast<std::uint32_t>(payload.size()), handle_, message, 0) != 0)
        log("the answer could not be sent: %s", std::strerror(errno));
}

void module_standin::take(mts_message_t *message)
{
    const answer_form form = form_now();
    if (form == answer_form::silent)
        log("keeps silent to opcode %u", static_cast<unsigned>(mts_opc_get(message)));
    else
        answer(message, form);
}

int module_standin::serve()
{
    const auto options = receive_options(RECEIVE_WAIT_S);
    for (;;) {
        mts_message_t *message = nullptr;
        if (mts_recv(handle_, &message, options.data()) != 0) {
            if (errno == MTS_ERRNO_TIMED_OUT || errno == MTS_ERRNO_INTERRUPTED)
                continue;
            log("cannot receive: %s", std::strerror(errno));
            return EXIT_FAILURE;
        }
        take(message);
        (void)mts_drop(handle_, message);
    }
}

int run()
{
    const std::int32_t handle = mts_bind(BIND_KIND, BIOS_DAEMON_SAP, BIND_OPTIONS, "module stand-in");
    if (handle < 0) {
        log("has no endpoint: %s", std::strerror(errno));
        return EXIT_FAILURE;
    }
    return module_standin(handle, seed_of_this_run()).serve();
}

} // namespace

int main()
{
    // Line by line also into a file, so that a message is there when its reader looks.
    (void)std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    try {
        return run();
    } catch (const std::exception &failure) {
        log("ends: %s", failure.what());
        return EXIT_FAILURE;
    }
}
