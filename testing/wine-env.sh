#!/bin/sh
# Prepares and stops the Wine prefix of one build tree and the local web server serving
# that tree (port and root in C:\tarnweb.port, read by testing/support/TestServer.h).
#   wine-env.sh up <build-dir>     create the prefix once, keep its server warm, register the
#                                  DLL, start the web server
#   wine-env.sh down <build-dir>   stop the web server and that prefix's Wine server
set -eu
src=$(cd "$(dirname "$0")/.." && pwd)
cmd=$1
build=$(cd "$2" && pwd)
prefix="$build/wineprefix"; . "$src/testing/wine-vars.sh"
portfile="$WINEPREFIX/drive_c/tarnweb.port"
web_down() {
    [ -f "$build/tarnweb.pid" ] && kill "$(cat "$build/tarnweb.pid")" 2>/dev/null || true
    rm -f "$build/tarnweb.pid" "$portfile"
}

case "$cmd" in
up)
    if [ ! -f "$WINEPREFIX/system.reg" ]; then
        echo "wine-env: creating prefix $WINEPREFIX (once per build tree)"
        wineboot -i >/dev/null 2>&1 || true
        wineserver -w
    fi
    # A persistent server plus one idle process make each later program start cheap.
    wineserver -p >/dev/null 2>&1 || true
    if [ -f "$build/testing/tarnidle.exe" ]; then
        (wine "$build/testing/tarnidle.exe" 1800 </dev/null >/dev/null 2>&1 &)
    fi
    # Bring Wine's own services up now, detached from any caller's output. Otherwise the
    # first test program starts them, they inherit ctest's output pipe, and ctest waits on
    # that pipe until the test times out.
    wine reg query "HKCU\\Software" </dev/null >/dev/null 2>&1 || true
    if [ -f "$build/TarnSM/TarnSMX.dll" ]; then
        wine regsvr32 /s "$build/TarnSM/TarnSMX.dll"
    fi
    web_down
    python3 "$src/testing/http/tarnhttp.py" "$build" --lifetime 3600 --port-file "$portfile" \
        </dev/null >/dev/null 2>&1 &
    echo $! >"$build/tarnweb.pid"
    for _ in $(seq 1 100); do [ -f "$portfile" ] || sleep 0.1; done
    [ -f "$portfile" ] || { echo "wine-env: the web server did not start" >&2; exit 1; }
    ;;
down)
    web_down
    wineserver -k >/dev/null 2>&1 || true
    ;;
*) echo "usage: wine-env.sh up|down <build-dir>" >&2; exit 2 ;;
esac
