#!/bin/sh
# Builds, signs and packages a release: both DLLs, the CAB for pages, the MSI, checksums.
#   release.sh [--cert CERT.pem --key KEY.pem [--chain CHAIN.pem]] [--test-cert]
# The signing identity comes from the command line or from the environment:
#   TARN_SIGN_CERT, TARN_SIGN_KEY   PEM certificate and private key (required together)
#   TARN_SIGN_CHAIN                 PEM intermediate certificates to embed (optional)
#   TARN_SIGN_PASS                  password of an encrypted key (optional)
#   TARN_TIMESTAMP_URL              RFC 3161 time-stamp server; use one for real releases,
#                                   or the signatures die with the certificate
#   TARN_DEFAULT_TRUSTED_SIGNERS    the build's default signers ("|"-separated), for a vendor's
#                                   own build; the product's default otherwise
# Without an identity (or with --test-cert) everything is signed with a throw-away test
# certificate, and the output folder and package names say TESTSIGNED.
set -eu
cd "$(dirname "$0")/.."
root=$(pwd)
cert=${TARN_SIGN_CERT:-}
key=${TARN_SIGN_KEY:-}
chain=${TARN_SIGN_CHAIN:-}
test_cert=no
while [ $# -gt 0 ]; do
    case "$1" in
    --cert) cert=$2; shift 2 ;;
    --key) key=$2; shift 2 ;;
    --chain) chain=$2; shift 2 ;;
    --test-cert) test_cert=yes; shift ;;
    *) echo "usage: release.sh [--cert CERT.pem --key KEY.pem [--chain CHAIN.pem]] [--test-cert]" >&2; exit 2 ;;
    esac
done
if [ -n "$cert$key" ] && { [ -z "$cert" ] || [ -z "$key" ]; }; then
    echo "release: a certificate needs its key and a key its certificate" >&2
    exit 2
fi
[ -z "$cert" ] && test_cert=yes

version=$(cat VERSION)
commas=$(echo "$version" | tr . ,)
name=TarnSMX-$version
if [ "$test_cert" = yes ]; then
    name=$name-TESTSIGNED
    pki=$root/build/release/test-pki
    [ -f "$pki/plain.pem" ] || testing/pki/make-pki.sh "$pki" >/dev/null
    cert=$pki/plain.pem key=$pki/plain.key chain=$pki/plain.ca.pem
fi

shout() {
    [ "$test_cert" = yes ] || return 0
    cat >&2 <<EOF

************************************************************************
*  TEST-SIGNED, NOT A RELEASE                                          *
*  No signing certificate was given (TARN_SIGN_CERT and TARN_SIGN_KEY, *
*  or --cert and --key), so everything is signed with a throw-away     *
*  test certificate ("PlainSigner", root build/release/test-pki).      *
*  Browsers and Windows will not trust it. Output: build/release/$name
************************************************************************

EOF
}
shout

start=$(date +%s)
# A vendor's own build names its signers here; otherwise the presets' product default holds.
# The two builds run side by side: each has serial steps (configure, link) that leave a core idle.
build() {  # <arch>
    if [ -n "${TARN_DEFAULT_TRUSTED_SIGNERS:-}" ]; then
        cmake --preset release-$1 -DTARN_DEFAULT_TRUSTED_SIGNERS="$TARN_DEFAULT_TRUSTED_SIGNERS" >/dev/null
    else
        cmake --preset release-$1 >/dev/null
    fi
    cmake --build --preset release-$1
}
mkdir -p build/release
build x64 >build/release/build-x64.log 2>&1 &
x64=$!
build x86 >build/release/build-x86.log 2>&1 || { cat build/release/build-x86.log >&2; exit 1; }
wait $x64 || { cat build/release/build-x64.log >&2; exit 1; }
echo "release: built x64 and x86 ($(($(date +%s) - start)) s)"

out=$root/build/release/$name
stage=$root/build/release/stage-$name
rm -rf "$out" "$stage"
mkdir -p "$out/x64" "$out/x86" "$stage/cab"

sign() {  # <in> <out>
    set -- "$1" "$2" -certs "$cert" -key "$key" -h sha256 -n "TarnSM trust control"
    [ -n "$chain" ] && set -- "$@" -ac "$chain"
    [ -n "${TARN_SIGN_PASS:-}" ] && set -- "$@" -pass "$TARN_SIGN_PASS"
    [ -n "${TARN_TIMESTAMP_URL:-}" ] && set -- "$@" -ts "$TARN_TIMESTAMP_URL"
    in=$1 signed=$2
    shift 2
    rm -f "$signed"
    log=$(osslsigncode sign "$@" -in "$in" -out "$signed" 2>&1) || { echo "$log" >&2; exit 1; }
}

sign build/release-x64/TarnSM/TarnSMX.dll "$out/x64/TarnSMX.dll"
sign build/release-x86/TarnSM/TarnSMX.dll "$out/x86/TarnSMX.dll"

# The CAB: both DLLs under distinct names, and the INF that picks one by the host's bitness.
sed "s/@VERSION_COMMAS@/$commas/g" packaging/TarnSMX.inf.in >"$stage/cab/TarnSMX.inf"
cp "$out/x86/TarnSMX.dll" "$stage/cab/TarnSMX.dll"
cp "$out/x64/TarnSMX.dll" "$stage/cab/TarnSMX64.dll"
(cd "$stage/cab" && gcab -c -z "$stage/TarnSMX.cab" TarnSMX.inf TarnSMX.dll TarnSMX64.dll)
sign "$stage/TarnSMX.cab" "$out/$name.cab"
cp "$stage/cab/TarnSMX.inf" "$out/TarnSMX.inf"

python3 packaging/make-msi.py "$version" "$out/x64/TarnSMX.dll" "$out/x86/TarnSMX.dll" "$stage/TarnSMX.msi"
sign "$stage/TarnSMX.msi" "$out/$name.msi"
rm -rf "$stage"

[ "$test_cert" = yes ] && cat >"$out/TESTSIGNED-NOT-FOR-RELEASE.txt" <<EOF
Everything in this folder is signed with a throw-away test certificate (PlainSigner,
issued by TarnTestRoot). It is for testing only: browsers and Windows do not trust it.
EOF
(cd "$out" && find . -type f ! -name SHA256SUMS | sed 's|^\./||' | sort | xargs sha256sum >SHA256SUMS)

echo "release: $out ($(($(date +%s) - start)) s)"
(cd "$out" && ls -l x64/TarnSMX.dll x86/TarnSMX.dll "$name.cab" "$name.msi" | awk '{ printf "  %9d  %s\n", $5, $9 }')
shout
