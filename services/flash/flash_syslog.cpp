#include "flash_syslog.h"

#include "sdwrap.h"

namespace
{

constexpr std::uint32_t SYSLOG_ERROR = 3;
constexpr const char *SYSLOG_FACILITY = "BIOS_DAEMON";

} // namespace

void tell_syslog(const char *name, const std::string &text)
{
    std::string format = std::string("<<%%%s-%d-") + name + ">> ";
    for (const char character : text)
        format.append(character == '%' ? 2 : 1, character);
    vesk_syslog(SYSLOG_ERROR, format.c_str(), SYSLOG_FACILITY, SYSLOG_ERROR);
}
