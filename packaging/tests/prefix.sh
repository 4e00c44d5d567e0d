#!/bin/sh
# A fresh Wine prefix for the package checks, apart from the build tree's own.
#   prefix.sh up <prefix> <root.pem>   create it, trust the test root, keep its server warm
#   prefix.sh down <prefix>            stop its server and delete it
set -eu
prefix="$2"; . "$(dirname "$0")/../../testing/wine-vars.sh"
case "$1" in
up)
    [ -d "$WINEPREFIX" ] && { wineserver -k 2>/dev/null || true; rm -rf "$WINEPREFIX"; }
    wineboot -i >/dev/null 2>&1 || true
    wineserver -w
    wineserver -p >/dev/null 2>&1 || true
    wine reg query "HKCU\\Software" </dev/null >/dev/null 2>&1 || true
    python3 "$(dirname "$0")/../../testing/pki/root-reg.py" "$3" "$WINEPREFIX/root.reg"
    wine regedit /S "$WINEPREFIX/root.reg" </dev/null
    rm "$WINEPREFIX/root.reg"
    ;;
down)
    wineserver -k 2>/dev/null || true
    rm -rf "$WINEPREFIX"
    ;;
esac
