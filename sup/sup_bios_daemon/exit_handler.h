// What the daemon and its programming children leave behind when they exit.
#pragma once

// Appends a stack trace to "/bootflash/bios_daemon.dbg", sends a syslog line and pauses 5 seconds. Installed
// with on_exit, so children inherit it.
extern "C" void biosd_on_exit(int exit_status, void *argument);
