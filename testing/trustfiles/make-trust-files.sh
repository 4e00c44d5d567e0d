#!/bin/sh
# Makes the signed trust data files the site-trust tests and the demo serve, once per
# build tree: a test PKI (root trusted in the build's Wine prefix only), then one data
# file per case, built with tarntrust and signed with osslsigncode.
#   make-trust-files.sh <windows-build-dir>
# Output: <build>/trustfiles/www/*.dll (served by the tests' local web server).
set -eu
build=$(cd "$1" && pwd)
src=$(cd "$(dirname "$0")/../.." && pwd)
export WINEPREFIX="$build/wineprefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree=;mshtml="
pki="$build/pki"
out="$build/trustfiles"
www="$out/www"
tarntrust="$build/tools/tarntrust/tarntrust.exe"
winpath() { printf 'Z:%s' "$1" | tr / '\\'; }

[ -f "$pki/tarnsm.pem" ] || sh "$src/testing/pki/make-pki.sh" "$pki" >/dev/null
python3 "$src/testing/pki/root-reg.py" "$pki/root.pem" "$pki/root.reg"
wine regedit /S "$(winpath "$pki/root.reg")"

rm -rf "$out"
mkdir -p "$www/shop" "$www/data" "$out/src"

site() {  # site <name>: reads the site file from stdin, builds $out/src/<name>.dll
    cat >"$out/src/$1.txt"
    (cd "$out/src" && wine "$tarntrust" build "$1.txt" "$1.dll" >/dev/null 2>&1)
}
sign() {  # sign <leaf> <name> <dest>
    sh "$src/testing/pki/sign.sh" "$pki/$1" "$out/src/$2.dll" "$3" >/dev/null
}

site good <<'SITE'
[https]
+secure.example.com
-admin.secure.example.com
+=exact.example.org
+*.wild.example.net
[http]
+example.com
-bad.example.com
+127.0.0.1
[signers]
SiteSigner
SITE
site emptytrust <<'SITE'
[https]
-nobody.example.com
[http]
-nobody.example.com
SITE
site nohttps <<'SITE'
[http]
+example.com
SITE

sign plain good "$www/good.dll"
sign plain good "$www/shop/trust.dll"
sign plain good "$www/data/sites.dll"
sign org good "$www/org.dll"
sign wrongusage good "$www/wrongusage.dll"
sign lowercase good "$www/lowercase.dll"
sign rogue good "$www/rogue.dll"
sign lookalike good "$www/lookalike.dll"
sign forged good "$www/forged.dll"
sign tarnsm good "$www/tarnsm.dll"
sign expired good "$www/expired.dll"
sign plain emptytrust "$www/emptytrust.dll"
sign plain nohttps "$www/nohttps.dll"
cp "$out/src/good.dll" "$www/unsigned.dll"
cp "$www/good.dll" "$www/good.DLL"
printf 'not a module at all\n' >"$www/notpe.dll"
# The same bytes as good.dll with one letter of its site list changed after signing.
python3 - "$www/good.dll" "$www/tampered.dll" <<'PY'
import sys
data = bytearray(open(sys.argv[1], 'rb').read())
at = data.find('example'.encode('utf-16-le'))
data[at] ^= 0x20
open(sys.argv[2], 'wb').write(data)
PY
# A first entry by a signer that is not trusted, a second by one that is.
python3 "$src/testing/pki/append-cert.py" "$www/lowercase.dll" "$www/twocerts.dll" --from "$www/good.dll" >/dev/null
echo "trust files ready in $www"
