#!/bin/sh
# Runs a program of GoogleTest whose tests share one process, and prints what failed, what was skipped, and how many ran.
# Fails also when the process ended before its last test, with whatever status.
#   $1 program   the rest: its arguments
output=$("$@" --gtest_brief=1 2>&1)
status=$?
printf '%s\n' "$output"
case $output in
    *"[==========] "*" ran. ("*) exit $status ;;
esac
echo "$1 ended with status $status before its last test"
exit 1
