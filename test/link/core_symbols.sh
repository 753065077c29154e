#!/bin/sh
# What libbios_daemon_core.a needs: only its own names, the platform interfaces, libc and the C++ runtime.
#   $1 libbios_daemon_core.a   $2 folder of the platform headers   $3 compiler flag of the word size, or ""
set -eu
library=$1 platform=$2 flag=${3:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

nm --defined-only --extern-only "$library" | awk 'NF == 3 { print $3 }' | sort -u >"$work/own"
nm --undefined-only "$library" | awk 'NF == 2 { print $2 }' | sort -u >"$work/needed"
for name in libc.so.6 libm.so.6 libstdc++.so.6 libgcc_s.so.1; do
    nm --dynamic --defined-only "$(c++ $flag -print-file-name=$name)"
done | awk '{ print $NF }' | sed 's/@.*//' | sort -u >"$work/runtime"
# stdin and the like and the linker's own name
printf '_GLOBAL_OFFSET_TABLE_\natexit\nfstat\nstat\nlstat\n' | sort -u - "$work/runtime" -o "$work/runtime"
grep -hoE '[a-z_0-9]+(\(|;)' "$platform"/*.h | tr -d '(;' | sort -u >"$work/platform"

sort -u "$work/own" "$work/runtime" "$work/platform" >"$work/allowed"
foreign=$(comm -23 "$work/needed" "$work/allowed")
echo "needed from outside: $(comm -23 "$work/needed" "$work/own" | tr '\n' ' ')"
[ -z "$foreign" ] || { echo "not allowed: $foreign"; exit 1; }
grep -qx mts_bind "$work/needed" || { echo "the archive does not need the transport: not the daemon"; exit 1; }
grep -qx main "$work/own" || { echo "the archive lacks main"; exit 1; }
