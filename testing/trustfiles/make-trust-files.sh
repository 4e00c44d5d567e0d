#!/bin/sh
# Makes the signed trust data files of the site-trust and fault-injection tests, once per
# build tree: a test PKI (root trusted in the build's Wine prefix only), then the data files,
# built with tarntrust and signed with osslsigncode.
#   make-trust-files.sh <windows-build-dir>
# Output: <build>/trustfiles/www/*.dll and www/fault/*.dll (served by the local web server).
set -eu
build=$(cd "$1" && pwd)
src=$(cd "$(dirname "$0")/../.." && pwd)
prefix="$build/wineprefix"; . "$src/testing/wine-vars.sh"
pki="$build/pki"
out="$build/trustfiles"
www="$out/www"

[ -f "$pki/tarnsm.pem" ] || sh "$src/testing/pki/make-pki.sh" "$pki" >/dev/null
python3 "$src/testing/pki/root-reg.py" "$pki/root.pem" "$pki/root.reg"
wine regedit /S "$(printf 'Z:%s' "$pki/root.reg" | tr / '\\')"
rm -rf "$out"
mkdir -p "$www/shop" "$www/fault" "$out/src"

site() {  # site <name>: reads the site file from stdin, builds $out/src/<name>.dll
    cat >"$out/src/$1.txt"
    (cd "$out/src" && wine "$build/tools/tarntrust/tarntrust.exe" build "$1.txt" "$1.dll" >"$1.log" 2>&1) ||
        { cat "$out/src/$1.log" >&2; exit 1; }
}
sign() {  # sign <leaf> <name> <dest>
    sh "$src/testing/pki/sign.sh" "$pki/$1" "$out/src/$2.dll" "$www/$3.dll" >/dev/null
}

printf '[https]\n+secure.example.com\n-admin.secure.example.com\n+=exact.example.org\n+*.wild.example.net
[http]\n+example.com\n-bad.example.com\n+127.0.0.1\n[signers]\nSiteSigner\n' | site good
printf '[https]\n-nobody.example.com\n[http]\n-nobody.example.com\n' | site emptytrust
printf '[http]\n+example.com\n' | site nohttps
# huge: 1,400 entries of 23 characters (with CR LF) per list, past 30,000 characters, with the
# site the tests ask about and then a denial last (a read that stops early trusts it).
# signers: a site signer list (string 103) of 5,000 names of 5 characters (tarntrust stops at
# 32,767 characters per string).
python3 - "$out/src" <<'PY'
import sys
entries = "".join("+s%05d.fault.example\n" % i for i in range(1400))
entries += "+near-end.example.com\n-deny.s00000.fault.example\n"
open(sys.argv[1] + "/huge.in", "w").write("[https]\n" + entries + "[http]\n" + entries)
names = "".join("S%04d\n" % i for i in range(5000))
open(sys.argv[1] + "/signers.in", "w").write("[http]\n+example.com\n[https]\n+secure.example.com\n[signers]\n" + names)
PY
site huge <"$out/src/huge.in"
site signers <"$out/src/signers.in"

for leaf in org wrongusage lowercase rogue lookalike forged tarnsm expired; do
    sign "$leaf" good "$leaf"
done
for name in good:good good:shop/trust emptytrust:emptytrust nohttps:nohttps huge:fault/huge signers:fault/signers; do
    sign plain "${name%%:*}" "${name#*:}"
done
cp "$out/src/good.dll" "$www/unsigned.dll"
printf 'not a module at all\n' >"$www/notpe.dll"
# The same bytes as good.dll with one letter of its site list changed after signing.
python3 - "$www/good.dll" "$www/tampered.dll" <<'PY'
import sys
data = bytearray(open(sys.argv[1], 'rb').read())
data[data.find('example'.encode('utf-16-le'))] ^= 0x20
open(sys.argv[2], 'wb').write(data)
PY
# A first entry by a signer that is not trusted, a second by one that is.
python3 "$src/testing/pki/append-cert.py" "$www/lowercase.dll" "$www/twocerts.dll" --from "$www/good.dll"
# A table of 20,000 entries after a valid first one by a signer not listed: each pass over the
# table re-checks the first entry, so only a cap on passes keeps the answer quick.
python3 "$src/testing/pki/append-cert.py" "$www/lowercase.dll" "$www/fault/certcount.dll" --empty 20000
echo "trust files ready in $www"
