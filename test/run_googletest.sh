#!/usr/bin/env bash
# Runs a program of GoogleTest whose tests share one process, and prints what failed, what was skipped, and how many ran.
# Fails also when no test ran, or when the process ended before its last test, with whatever status.
#   $1 program   the rest: its arguments
output=$(mktemp)
trap 'rm -f "$output"' EXIT
# Printed while it runs: of a program that is killed for its time it is all there is.
"$@" --gtest_brief=1 2>&1 | tee "$output"
status=${PIPESTATUS[0]}
if ! grep -q '^\[==========\] [0-9]* tests\? from .* ran\. (' "$output"; then
    echo "$1 ended with status $status before its last test"
    exit 1
fi
if grep -q '^\[==========\] 0 tests ' "$output"; then
    echo "$1 has run no test"
    exit 1
fi
exit "$status"
