#!/bin/sh
# Links bios_daemon and the driver kit with drivers that are not the chassis's, through the build's own settings, and
# runs both.
#   $1 source folder   $2 empty work folder   $3 i686 or native
set -eu
source=$1 work=$2 arch=$3
rm -rf "$work" && mkdir -p "$work"

memory_flash=$source/test/driver_kit/memory_flash
cmake -S "$source" -B "$work/build" -G Ninja -DBIOS_DAEMON_ARCH="$arch" -DCMAKE_BUILD_TYPE=Debug \
    -DBIOS_DAEMON_DRIVERS="$source/test/link/foreign_drivers.cpp;$memory_flash/card_flash_driver.cpp;$memory_flash/memory_flash.cpp" \
    -DBIOS_DAEMON_DRIVER_SURROUNDINGS="$source/test/link/foreign_driver_surroundings.cpp;$memory_flash/memory_surroundings.cpp" \
    >"$work/configure.log"
cmake --build "$work/build" --target bios_daemon driver_kit >"$work/build.log" || { cat "$work/build.log"; exit 1; }

# A card in slot 1 of its own folder: the daemon starts on these drivers and waits for messages.
card=$work/card
mkdir -p "$card/inventory/1" "$card/slots/1"
echo 90 >"$card/inventory/1/card_id"
echo 1 >"$card/inventory/1/kind"
CHASSIS_DIR=$card CHASSIS_SLOT=1 "$work/build/bin/bios_daemon" >"$work/output" 2>&1 &
daemon=$!
trap 'kill -9 $daemon 2>/dev/null || true' EXIT
for attempt in $(seq 100); do
    [ -e "$card/slots/1/debug/categories" ] && break
    kill -0 "$daemon" 2>/dev/null || break
    sleep 0.1
done
sleep 1
kill -0 "$daemon" 2>/dev/null || { cat "$work/output"; echo 'the daemon has ended'; exit 1; }

# The flash driver keeps all its promises, and the procedure works over it. The network driver is told what it lacks.
"$work/build/bin/driver_kit" --gtest_filter='Flash*' >"$work/flash" 2>&1 || { cat "$work/flash"; exit 1; }
grep -q '^\[  PASSED  \]' "$work/flash"
status=0
timeout 120 "$work/build/bin/driver_kit" --gtest_filter='DatagramDriver.RecordIsComplete:*Size*:*Nobody*' \
    >"$work/network" 2>&1 || status=$?
[ "$status" -eq 1 ] || { cat "$work/network"; echo "exit status $status instead of 1"; exit 1; }
tells() {
    grep -qF "$1" "$work/network" || { cat "$work/network"; echo "not told: $1"; exit 1; }
}
tells '[       OK ] DatagramDriver.RecordIsComplete'
tells '[  FAILED  ] DatagramDriver.DeliversEverySizeWithZerosBehindIt'
