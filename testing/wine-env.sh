#!/bin/sh
# Prepares and stops the Wine prefix of one build tree.
#   wine-env.sh up <build-dir>     create the prefix once, keep its server alive, register the DLL
#   wine-env.sh down <build-dir>   stop that prefix's server (and every process in it)
set -eu
cmd=$1
build=$(cd "$2" && pwd)
export WINEPREFIX="$build/wineprefix"
export WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree=;mshtml="

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
    ;;
down)
    wineserver -k >/dev/null 2>&1 || true
    ;;
*)
    echo "usage: wine-env.sh up|down <build-dir>" >&2
    exit 2
    ;;
esac
