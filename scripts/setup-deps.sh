#!/bin/sh
# Installs the build and test dependencies that are missing (Debian/Ubuntu).
set -eu
if ! command -v dpkg >/dev/null 2>&1; then
    echo "setup-deps: not a Debian-like system; install cmake, a C++17 compiler," \
         "GoogleTest and Google Benchmark yourself" >&2
    exit 0
fi
pkgs="cmake g++ make libgtest-dev libgmock-dev libbenchmark-dev locales binutils git"
missing=""
for p in $pkgs; do
    dpkg -s "$p" >/dev/null 2>&1 || missing="$missing $p"
done
if [ -n "$missing" ]; then
    echo "installing:$missing"
    if [ "$(id -u)" -ne 0 ]; then sudo=sudo; else sudo=; fi
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq $missing
fi
