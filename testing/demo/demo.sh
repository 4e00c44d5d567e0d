#!/bin/sh
# The main job end to end: register the control in this build's Wine prefix, serve a page
# from 127.0.0.1, let the page's script ask the control, and show the answers and the log.
set -eu
build=$(cd "$1" && pwd)
src=$(cd "$(dirname "$0")/../.." && pwd)
export WINEPREFIX="$build/wineprefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree=;mshtml="

"$src/testing/wine-env.sh" up "$build"
trap '"$src/testing/wine-env.sh" down "$build"' EXIT

host="$build/tools/tarnhost/tarnhost.exe"
tarnlog="$build/tools/tarnlog/tarnlog.exe"
winpath() { printf 'Z:%s' "$1" | tr / '\\'; }

page="http://127.0.0.1:8080/shop/page.html"
echo "== Page $page asks the control (tarnhost plays the browser)"
wine "$host" --url "$page" --param VendorID=demo-vendor "$(winpath "$src/testing/demo/page.js")"

if [ -f "$tarnlog" ]; then
    echo
    echo "== The log of that run (tarnlog --process tarnhost.exe)"
    wine "$tarnlog" --process tarnhost.exe | tail -n 40
fi
