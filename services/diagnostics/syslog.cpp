// Syslog of a card: lines of slots/SLOT/syslog, "TIME slot SLOT severity SEVERITY MESSAGE".
#include <cerrno>
#include <exception>
#include <string>

#include "chassis_dir.h"
#include "line_file.h"
#include "sdwrap.h"

syslog_facility_t *sdwrap_sys_facility = nullptr;

namespace
{

constexpr std::uint32_t SEVERITY_LAST = 7; // debugging
constexpr std::uint32_t NO_LEVEL = UINT32_MAX;

// Expands the format itself: some formats of catalogues take more values than the call carries, and those stay as
// they stand instead of being read from nowhere.
std::string expand(const char *format, const char *facility_name, std::uint32_t severity)
{
    std::string message;
    bool name_used = false;
    bool severity_used = false;
    for (const char *at = format; *at != '\0'; ++at) {
        const char kind = at[0] == '%' ? at[1] : '\0';
        if (kind == '%') {
            message += '%';
        } else if (kind == 's' && !name_used) {
            message += facility_name;
            name_used = true;
        } else if (kind == 'd' && !severity_used) {
            message += std::to_string(severity);
            severity_used = true;
        } else {
            message += *at;
            continue;
        }
        ++at; // past the second character of what was expanded
    }
    return message;
}

} // namespace

int32_t sdwrap_sys_init_helper(int32_t, const char *, const char *, uint32_t, uint32_t, uint32_t, uint32_t)
try {
    if (sdwrap_sys_facility == nullptr) {
        errno = EINVAL;
        return -1;
    }
    const std::uint32_t level = chassis_read_value(chassis_slot_path(chassis_own_slot(), "syslog_level"), NO_LEVEL);
    if (level <= SEVERITY_LAST)
        sdwrap_sys_facility->current_level = static_cast<std::uint8_t>(level);
    return 0;
} catch (const std::exception &) {
    errno = ENOMEM;
    return -1;
}

void vesk_syslog(uint32_t severity, const char *format, const char *facility_name, uint32_t message_severity)
try {
    if (format == nullptr)
        return;
    const unsigned slot = chassis_own_slot();
    const std::string head = "slot " + std::to_string(slot) + " severity " + std::to_string(severity) + " ";
    const std::string name = facility_name != nullptr ? facility_name : "";
    (void)append_line(chassis_slot_path(slot, "syslog"),
                      head + expand(format, name.c_str(), message_severity)); // no one to report a failure to
} catch (const std::exception &) {
    // A message that finds no memory is lost.
}
