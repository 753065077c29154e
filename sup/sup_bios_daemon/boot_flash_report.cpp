#include "boot_flash_report.h"

#include <cstddef>

namespace
{

constexpr std::uint32_t SEVERITY_CRITICAL = 2;
constexpr std::uint32_t SEVERITY_NOTICE = 5;

constexpr char to_upper(char letter)
{
    return letter >= 'a' && letter <= 'z' ? static_cast<char>(letter - 'a' + 'A') : letter;
}

// The syslog service may keep the pointer, so the text outlives the call.
const char *upper_case_name(const char *name)
{
    static char upper[32];
    std::size_t i = 0;
    for (; name[i] != '\0' && i + 1 < sizeof upper; ++i)
        upper[i] = to_upper(name[i]);
    upper[i] = '\0';
    return upper;
}

} // namespace

syslog_facility_t syslog_fac_LOG_BIOS_DAEMON = {
    .name = "bios_daemon",
    .number = 904,
    .first_level = 2,
    .current_level = 2,
};

const syslog_module_message_t syslog_msg_BIOS_DAEMON_LC_ERROR = {
    .name = "BIOS_DAEMON_LC_ERROR",
    .facility = &syslog_fac_LOG_BIOS_DAEMON,
    .format = "<<%%%s-%d-BIOS_DAEMON_LC_ERROR>> BIOS Sector (%d) is write protected",
    .kind = "LC",
    .severity = SEVERITY_CRITICAL,
};

const syslog_message_t syslog_msg_BIOS_DAEMON_SUP_ERROR = {
    .name = "BIOS_DAEMON_SUP_ERROR",
    .facility = &syslog_fac_LOG_BIOS_DAEMON,
    .format = "<<%%%s-%d-BIOS_DAEMON_SUP_ERROR>> BIOS Sector (%d) is write protected",
    .severity = SEVERITY_CRITICAL,
};

const syslog_message_t syslog_msg_BIOS_DAEMON_FLASH_WARNING = {
    .name = "BIOS_DAEMON_FLASH_WARNING",
    .facility = &syslog_fac_LOG_BIOS_DAEMON,
    .format = "<<%%%s-%d-BIOS_DAEMON_FLASH_WARNING>> Flash chip not supported by running image. "
              "Skipping bios upgrade.",
    .severity = SEVERITY_CRITICAL,
};

const syslog_module_message_t syslog_msg_BIOS_DAEMON_LC_PRI_BOOT_FAIL = {
    .name = "BIOS_DAEMON_LC_PRI_BOOT_FAIL",
    .facility = &syslog_fac_LOG_BIOS_DAEMON,
    .format = "<<%%%s-%d-BIOS_DAEMON_LC_PRI_BOOT_FAIL>>  System booted from Alternate BIOS Flash",
    .kind = "LC",
    .severity = SEVERITY_CRITICAL,
};

const syslog_module_message_t syslog_msg_BIOS_DAEMON_LC_PRI_BOOT = {
    .name = "BIOS_DAEMON_LC_PRI_BOOT",
    .facility = &syslog_fac_LOG_BIOS_DAEMON,
    .format = "<<%%%s-%d-BIOS_DAEMON_LC_PRI_BOOT>>  System booted from Primary BIOS Flash",
    .kind = "LC",
    .severity = SEVERITY_NOTICE,
};

const syslog_message_t syslog_msg_BIOS_DAEMON_PRI_BOOT_FAIL = {
    .name = "BIOS_DAEMON_PRI_BOOT_FAIL",
    .facility = &syslog_fac_LOG_BIOS_DAEMON,
    .format = "<<%%%s-%d-BIOS_DAEMON_PRI_BOOT_FAIL>>  System booted from Alternate BIOS Flash",
    .severity = SEVERITY_CRITICAL,
};

const syslog_message_t syslog_msg_BIOS_DAEMON_PRI_BOOT = {
    .name = "BIOS_DAEMON_PRI_BOOT",
    .facility = &syslog_fac_LOG_BIOS_DAEMON,
    .format = "<<%%%s-%d-BIOS_DAEMON_PRI_BOOT>> System booted from Primary BIOS Flash",
    .severity = SEVERITY_NOTICE,
};

std::int32_t bios_check_boot_failure()
{
    return 0;
}

void raise_syslog_message(const syslog_message_t &message)
{
    if (message.facility->current_level < message.severity)
        return;
    vesk_syslog(message.severity, message.format, upper_case_name(message.facility->name), message.severity);
}
