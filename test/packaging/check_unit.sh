#!/bin/sh
# The service units are understood by systemd, which finds nothing wrong with them and little to attack.
# Those of a card have drop-ins.
#   $1 folder of the units   $2 folder of the card's   $3 folder of the built programs   $4 work folder
set -eu
units=$1 card=$2 programs=$3 work=$4
command -v systemd-analyze >/dev/null || { echo "skipped: there is no systemd-analyze"; exit 77; }
rm -rf "$work" && mkdir -p "$work"
cp "$units/bios-daemon-platform.target" "$work"
# Here the programs lie where they were built, and their manual pages are not installed.
here() { sed -e "s|/usr/sbin/bios_|$programs/bios_|" -e "s|/usr/lib/bios-daemon|$card|" -e '/^Documentation=/d' "$1"; }
here "$card/bios-card.service" >"$work/bios-card.service"
for program in daemon agent; do
    unit=$work/bios-$program.service
    here "$units/bios-$program.service" >"$unit"
    grep -q "^ExecStart=$programs/bios_$program\$" "$unit"
done
check_units() {
    for program in daemon agent; do
        unit=$work/bios-$program.service
        SYSTEMD_LOG_LEVEL=warning systemd-analyze verify --man=no "$unit" >"$work/verify.log" 2>&1 || true
        # Of other units of this machine it may complain.
        if grep -e bios- -e card.conf "$work/verify.log"; then
            exit 1
        fi
        # 100 is a service without any protection; the daemon may mount and reach devices.
        systemd-analyze security --offline=true --no-pager --threshold=40 "$unit" >"$work/security.log" ||
            { tail -1 "$work/security.log"; exit 1; }
        tail -1 "$work/security.log"
    done
}
check_units
for program in daemon agent; do
    mkdir "$work/bios-$program.service.d"
    here "$card/bios-$program.conf" >"$work/bios-$program.service.d/card.conf"
done
check_units

# The end of the daemon is not that of its child.
grep -q '^KillMode=process$' "$work/bios-daemon.service" || { echo "systemd kills the child that programs"; exit 1; }

# A stop waits for the daemon's children, and not for ever when there is none.
stop=$(sed -n "s/^ExecStop=\/bin\/sh -c '\(.*\)'\$/\1/p" "$work/bios-daemon.service")
[ -n "$stop" ]
mkfifo "$work/end"
sh -c 'cat "$1" & wait' sh "$work/end" &
parent=$!
until pgrep -P "$parent" >/dev/null; do sleep 0.1; done
MAINPID=$parent timeout 30 sh -c "$stop" &
stopping=$!
until pgrep -P "$stopping" >/dev/null; do sleep 0.1; done
kill -0 "$stopping" || { echo "the stop did not wait for the child"; exit 1; }
: >"$work/end"
wait "$stopping" || { echo "the stop did not end when the child had ended"; exit 1; }
MAINPID='' timeout 30 sh -c "$stop" 2>/dev/null || { echo "the stop waits without a daemon"; exit 1; }
