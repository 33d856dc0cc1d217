#!/bin/sh
# The four build stamps must be readable with strings(1) in the library.
set -eu
lib=$1
out=$(strings "$lib")
status=0
check() {
    if printf '%s\n' "$out" | grep -Eq "$1"; then
        printf '%s\n' "$out" | grep -E "$1"
    else
        echo "missing stamp matching: $1"
        status=1
    fi
}
check '^qvn-build-date:[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z$'
check '^qvn-build-variant:[A-Za-z0-9_.-]+$'
check '^qvn-build-clean:[01]$'
check '^qvn-build-host:[^ ]+ [^ ]+ [^ ]+$'
exit $status
