#!/bin/sh
# Authenticode-signs a file with one identity of a make-pki.sh PKI.
#   sign.sh <leaf> <in> <out>
# <leaf> is a path stem such as build/pki/plain (for plain.pem, plain.key, plain.ca.pem), or a
# bare leaf name looked up in $TARN_PKI_DIR. The issuing root is embedded so that the verifier
# can build the chain without a certificate store holding it.
set -eu
[ $# -eq 3 ] || { echo "usage: sign.sh <leaf> <in> <out>" >&2; exit 2; }
case "$1" in
*/*) stem=$1 ;;
*) stem="${TARN_PKI_DIR:?set TARN_PKI_DIR or give a path stem}/$1" ;;
esac
for f in "$stem.pem" "$stem.key" "$stem.ca.pem"; do
    [ -f "$f" ] || { echo "sign.sh: missing $f" >&2; exit 1; }
done
# osslsigncode refuses to write over an existing output file.
rm -f "$3"
log=$(osslsigncode sign -certs "$stem.pem" -ac "$stem.ca.pem" -key "$stem.key" -h sha256 \
    -in "$2" -out "$3" 2>&1) || { echo "$log" >&2; exit 1; }
