#!/bin/sh
# Installs what the build and tests need on Debian, or says what is missing.
set -eu
packages="g++ g++-multilib g++-mingw-w64-x86-64-posix g++-mingw-w64-i686-posix mingw-w64-tools wine wine64 libwine-dev cmake ninja-build doctest-dev osslsigncode openssl python3 clang wixl msitools gcab"
missing=""
for p in $packages; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
[ -z "$missing" ] && exit 0
if [ "$(id -u)" = 0 ]; then
    echo "install-deps: installing$missing"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq $missing >/dev/null
else
    echo "install-deps: missing packages:$missing" >&2
    echo "install-deps: run as root: apt-get install -y$missing" >&2
    exit 1
fi
