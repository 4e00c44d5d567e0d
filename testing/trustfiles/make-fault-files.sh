#!/bin/sh
# Makes the odd but validly signed data files of the fault-injection tests, after
# make-trust-files.sh has made the test PKI (and emptied <build>/trustfiles):
#   huge.dll       a list of more than 30,000 characters per scheme, the probed sites last
#   signers.dll    a site signer list (string 103) of 5,000 names
#   certcount.dll  a certificate table of 20,001 entries
#   make-fault-files.sh <windows-build-dir>
# Output: <build>/trustfiles/www/fault/*.dll
set -eu
build=$(cd "$1" && pwd)
src=$(cd "$(dirname "$0")/../.." && pwd)
export WINEPREFIX="$build/wineprefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree=;mshtml="
pki="$build/pki"
out="$build/trustfiles/fault-src"
www="$build/trustfiles/www/fault"
tarntrust="$build/tools/tarntrust/tarntrust.exe"

[ -f "$pki/plain.pem" ] || { echo "make-fault-files: no test PKI in $pki (run make-trust-files.sh first)" >&2; exit 1; }
rm -rf "$out" "$www"
mkdir -p "$out" "$www"

site() {  # site <name>: reads the site file from stdin, builds $out/<name>.dll with tarntrust
    cat >"$out/$1.txt"
    (cd "$out" && wine "$tarntrust" build "$1.txt" "$1.dll" >"$1.log" 2>&1) || { cat "$out/$1.log" >&2; exit 1; }
}
sign() {  # sign <name>
    sh "$src/testing/pki/sign.sh" "$pki/plain" "$out/$1.dll" "$www/$1.dll" >/dev/null
}

# 1,400 entries of 23 characters (with CR LF) per list: past 30,000 characters, with the
# site the tests ask about as the very last entry.
python3 - "$out/huge.txt.in" <<'PY'
import sys
entries = ['+s%05d.fault.example' % i for i in range(1400)]
with open(sys.argv[1], 'w') as f:
    for section in ('https', 'http'):
        f.write('[%s]\n' % section)
        f.write('\n'.join(entries) + '\n')
        f.write('+near-end.example.com\n')
        f.write('-deny.s00000.fault.example\n')  # a denial last: a read that stops early trusts it
PY
site huge <"$out/huge.txt.in"

# Names of 5 characters: tarntrust stops at 32,767 characters per string.
python3 - "$out/signers.txt.in" <<'PY'
import sys
with open(sys.argv[1], 'w') as f:
    f.write('[http]\n+example.com\n[https]\n+secure.example.com\n[signers]\n')
    for i in range(5000):
        f.write('S%04d\n' % i)
PY
site signers <"$out/signers.txt.in"

for name in huge signers; do
    sign "$name"
done
# A certificate table of 20,000 entries after a valid first one by a signer not listed:
# each pass over the table re-checks the first entry, so only a cap on passes keeps the
# answer quick.
python3 "$src/testing/pki/append-cert.py" "$build/trustfiles/www/lowercase.dll" "$www/certcount.dll" --empty 20000 >/dev/null
echo "fault files ready in $www"
