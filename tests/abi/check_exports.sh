#!/bin/sh
# Checks that the shared library exports exactly the functions of the
# version script, and that these are exactly the QVN_API functions of the
# public header. Usage: check_exports.sh LIBRARY MAPFILE HEADER
set -eu
lib=$1 map=$2 header=$3
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

nm -D --defined-only "$lib" | awk '$2 ~ /^[TtWiDdBbRr]$/ {sub(/@.*/, "", $3); print $3}' \
    | sort -u > "$tmp/exported"
sed -n 's/^ *\(qvn_[a-z0-9_]*\);$/\1/p' "$map" | sort -u > "$tmp/map"
tr '\n' ' ' < "$header" | sed 's/;/;\n/g' \
    | sed -n 's/.*QVN_API[^(]*[ *]\(qvn_[a-z0-9_]*\) *(.*/\1/p' | sort -u > "$tmp/header"

status=0
if ! diff -u "$tmp/map" "$tmp/exported" > "$tmp/d1"; then
    echo "exported symbols differ from the version script (- script, + library):"
    cat "$tmp/d1"
    status=1
fi
if ! diff -u "$tmp/header" "$tmp/map" > "$tmp/d2"; then
    echo "version script differs from the header's QVN_API functions (- header, + script):"
    cat "$tmp/d2"
    status=1
fi
echo "$(wc -l < "$tmp/exported") functions exported"
exit $status
