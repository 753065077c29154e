#!/bin/sh
# Links bios_daemon with a platform library that is not the chassis, through the build's own setting, and runs it.
#   $1 source folder   $2 empty work folder   $3 i686 or native
set -eu
source=$1 work=$2 arch=$3
rm -rf "$work" && mkdir -p "$work"

flags=
[ "$arch" = i686 ] && flags=-m32
cc $flags -std=c11 -Wall -Wextra -Wpedantic -Werror -I "$source/platform" \
    -c "$source/test/link/foreign_platform.c" -o "$work/foreign_platform.o"
ar rcs "$work/libforeign.a" "$work/foreign_platform.o"

cmake -S "$source" -B "$work/build" -G Ninja -DBIOS_DAEMON_ARCH="$arch" \
    -DBIOS_DAEMON_PLATFORM="$work/libforeign.a" >"$work/configure.log"
cmake --build "$work/build" --target bios_daemon >"$work/build.log" || { cat "$work/build.log"; exit 1; }

# Its transport binds no endpoint: the daemon ends with 0x40710010, of which the exit status is the low byte. The
# exit handler's pause is part of every end.
status=0
"$work/build/bin/bios_daemon" >"$work/output" || status=$?
cat "$work/output"
[ "$status" -eq 16 ] || { echo "exit status $status instead of 16"; exit 1; }
grep -q '^sup: main function: BIOS programming$' "$work/output"
