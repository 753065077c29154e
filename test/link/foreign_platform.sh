#!/bin/sh
# Links bios_daemon and the conformance kit with a platform library that is not the chassis, through the build's own
# settings, and runs both.
#   $1 source folder   $2 empty work folder   $3 i686 or native
set -eu
source=$1 work=$2 arch=$3
rm -rf "$work" && mkdir -p "$work"

flags=
[ "$arch" = i686 ] && flags=-m32
cc $flags -std=c11 -Wall -Wextra -Wpedantic -Werror -I "$source/platform" \
    -c "$source/test/link/foreign_platform.c" -o "$work/foreign_platform.o"
ar rcs "$work/libforeign.a" "$work/foreign_platform.o"

# A team's source that this project's warnings would not let pass.
{
    echo "#include \"$source/test/link/foreign_surroundings.c\""
    echo 'static int nobody_calls_this(int unused) { unsigned narrow = -1; return (char)narrow; }'
} >"$work/surroundings.c"
cmake -S "$source" -B "$work/build" -G Ninja -DBIOS_DAEMON_ARCH="$arch" -DCMAKE_BUILD_TYPE=Debug \
    -DBIOS_DAEMON_PLATFORM="$work/libforeign.a" \
    -DBIOS_DAEMON_CONTRACT_SURROUNDINGS="$work/surroundings.c" >"$work/configure.log"
cmake --build "$work/build" --target bios_daemon platform_contract >"$work/build.log" ||
    { cat "$work/build.log"; exit 1; }

# Its transport binds no endpoint: the daemon ends with 0x40710010, of which the exit status is the low byte. The
# exit handler's pause is part of every end.
status=0
"$work/build/bin/bios_daemon" >"$work/output" || status=$?
cat "$work/output"
[ "$status" -eq 16 ] || { echo "exit status $status instead of 16"; exit 1; }
grep -q '^sup: main function: BIOS programming$' "$work/output"

# The kit finds that this platform keeps hardly a promise, and skips what the card cannot have.
status=0
"$work/build/bin/platform_contract" --gtest_brief=0 >"$work/contract" 2>&1 || status=$?
[ "$status" -eq 1 ] || { cat "$work/contract"; echo "exit status $status instead of 1"; exit 1; }
tells() {
    grep -qF "$1" "$work/contract" || { cat "$work/contract"; echo "not told: $1"; exit 1; }
}
tells '[  FAILED  ] GetPlatformInfo.TellsTheOwnModule'
tells '[  FAILED  ] DescriptorsOfOneCard.AreCloseOnExec'
tells '[  FAILED  ] ExecCmdWithIoPrint.Returns0WhenTheCommandEndsWithStatus0'
tells '[  FAILED  ] Modlock.IsReleasedWhenItsOwnerDies'
tells '[  SKIPPED ] BiosFlash.ProgrammedFlashReadsBackEqual'
tells '[  SKIPPED ] CctrlWriteReg3.WritesTheRegister'
tells 'nothing may be destroyed on this card'
if grep -E '^\[       OK \] (BiosFlash|ChipsetFlash|Descriptors|Modlock|Mts|Cmi|Tlv|Sprom|SysmgrCliGsync)' "$work/contract"; then
    echo 'passed without being kept'
    exit 1
fi
