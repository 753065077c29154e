// Lines of the card's syslog about what could not be recorded beside a flash.
#pragma once

#include <string>

//   name  of the message, capitals: "BIOS_EVENT_LOST"
//   text  any; what a format would expand stays as it is
void tell_syslog(const char *name, const std::string &text);
