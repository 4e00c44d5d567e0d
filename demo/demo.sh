#!/bin/sh
# The main job end to end: build and sign a trust data file, serve it from 127.0.0.1 beside
# a page, let pages ask the registered control, and show the answers with the log records
# that explain them.
set -eu
build=$(cd "$1" && pwd)
src=$(cd "$(dirname "$0")/.." && pwd)
prefix="$build/wineprefix"; . "$src/testing/wine-vars.sh"
work="$build/demo"
host="$build/tools/tarnhost/tarnhost.exe"
tarnlog="$build/tools/tarnlog/tarnlog.exe"
tarntrust="$build/tools/tarntrust/tarntrust.exe"
winpath() { printf 'Z:%s' "$1" | tr / '\\'; }
server_pid=""
keeper_pid=""
cleanup() {
    [ -n "$server_pid" ] && kill "$server_pid" 2>/dev/null || true
    [ -n "$keeper_pid" ] && kill "$keeper_pid" 2>/dev/null || true
    "$src/testing/wine-env.sh" down "$build"
}

"$src/testing/wine-env.sh" up "$build"
trap cleanup EXIT
rm -rf "$work" && mkdir -p "$work/www/shop"

echo "== 1. The publisher builds its trust data file and signs it"
[ -f "$build/pki/plain.pem" ] || sh "$src/testing/pki/make-pki.sh" "$build/pki" >/dev/null
python3 "$src/testing/pki/root-reg.py" "$build/pki/root.pem" "$build/pki/root.reg"
wine regedit /S "$(winpath "$build/pki/root.reg")"
cp "$src/demo/site.txt" "$work/site.txt"
(cd "$work" && wine "$tarntrust" build site.txt trust-unsigned.dll)
sh "$src/testing/pki/sign.sh" "$build/pki/plain" "$work/trust-unsigned.dll" "$work/www/shop/trust.dll" >/dev/null
wine "$tarntrust" show "$(winpath "$work/www/shop/trust.dll")" | sed 's/^/  /'
printf '<html><object id="TarnSM" classid="clsid:673D89B5-D69D-4BC1-94F9-E80FFC6D55E9"></object></html>\n' \
    >"$work/www/shop/page.html"

python3 "$src/testing/http/tarnhttp.py" "$work/www" --lifetime 300 >"$work/server.out" 2>&1 </dev/null &
server_pid=$!
for _ in 1 2 3 4 5 6 7 8 9 10; do
    port=$(sed -n 's/^PORT //p' "$work/server.out")
    [ -n "$port" ] && break
    sleep 0.5
done
# The ring lives while some process maps it; a follower keeps it for the whole demo.
wine "$tarnlog" --follow --seconds 300 >/dev/null 2>&1 </dev/null &
keeper_pid=$!

# Runs one page and prints the records its process logged.
ask() {
    url=$1
    shift
    echo
    echo "== $url $*"
    wine "$host" --url "$url" "$@" "$(winpath "$src/demo/ask-site.js")"
    pid=$(wine "$tarnlog" --process tarnhost.exe | tail -n 1 | sed -n 's/.*\[PID: \(0x[0-9a-f]*\)\].*/\1/p')
    echo "  -- why (tarnlog --pid $pid --class TarnSMX::TarnSM --level 3):"
    wine "$tarnlog" --pid "$pid" --class TarnSMX::TarnSM --level 3 \
        | grep -v "Failed to QI" | grep -E "Found current site|Successfully built URL|timeout value|Failed|Verified|List of trusted sites|GetTrust|TRUSTED|Invalid" \
        | sed 's/^.*\[Msg: /     /; s/\]$//'
}

echo
echo "== 2. Pages ask the control (tarnhost plays the browser; the data file is on 127.0.0.1:$port)"
ask "http://127.0.0.1:$port/shop/page.html"
ask "http://admin.shop.example.com/page.html" --param "TrustedSiteDataFileURL=http://127.0.0.1:$port/shop/trust.dll"
ask "http://unlisted.example.org/page.html" --param "TrustedSiteDataFileURL=http://127.0.0.1:$port/shop/trust.dll"

echo
echo "== 3. A host that is not on any list is granted dynamic trust by tarngrant"
tarngrant="$build/tools/tarngrant/tarngrant.exe"
rm -f "$work/granted"
wine "$host" "$(winpath "$src/demo/ask-container.js")" "$(winpath "$work/granted")" >"$work/container.out" 2>&1 &
host_job=$!
for _ in $(seq 1 100); do
    grep -q "before the grant" "$work/container.out" 2>/dev/null && break
    sleep 0.2
done
cat "$work/container.out"
pid=$(wine "$tarnlog" --process tarnhost.exe | grep "Our current container is not trusted" | tail -n 1 \
      | sed -n 's/.*\[PID: 0x\([0-9a-f]*\)\].*/\1/p')
pid=$(printf '%d' "0x$pid")
echo "  tarngrant grant $pid   (the table now holds that process and its encrypted path)"
wine "$tarngrant" grant --hold 30 "$pid" >"$work/grant.out" 2>&1 &
grant_job=$!
sleep 1
wine "$tarngrant" list | sed 's/^/    /'
touch "$work/granted"
wait "$host_job" || true
tail -n 2 "$work/container.out"
wait "$grant_job" || true
echo "  tarngrant list after the query (the grant was consumed):"
wine "$tarngrant" list | sed 's/^/    /'

echo
echo "== 4. Every scripted member, as a page without a site sees them"
wine "$host" --param VendorID=demo-vendor "$(winpath "$src/demo/page.js")"
