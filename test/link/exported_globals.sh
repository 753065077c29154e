#!/bin/sh
# What platform libraries read of the daemon is in its dynamic symbol table.
#   $1 the daemon's executable
set -eu
exported=$(nm --dynamic --defined-only "$1" | awk '{ print $NF }')
missing=0
for name in bios_programming_in_progress bios_cmd_program_in_progress src_version_chk running_version \
    syslog_fac_LOG_BIOS_DAEMON syslog_msg_BIOS_DAEMON_LC_ERROR syslog_msg_BIOS_DAEMON_SUP_ERROR \
    syslog_msg_BIOS_DAEMON_FLASH_WARNING syslog_msg_BIOS_DAEMON_LC_PRI_BOOT_FAIL syslog_msg_BIOS_DAEMON_LC_PRI_BOOT \
    syslog_msg_BIOS_DAEMON_PRI_BOOT_FAIL syslog_msg_BIOS_DAEMON_PRI_BOOT; do
    echo "$exported" | grep -qx "$name" || { echo "not exported: $name"; missing=1; }
done
exit $missing
