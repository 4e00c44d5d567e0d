#!/bin/sh
# Authenticode-signs a file with one identity of a make-pki.sh PKI.
#   sign.sh <leaf stem, such as build/pki/plain> <in> <out>
# The issuing root is embedded so that the verifier can build the chain without a
# certificate store holding it. osslsigncode refuses to write over an existing output file.
set -eu
[ $# -eq 3 ] || { echo "usage: sign.sh <leaf stem> <in> <out>" >&2; exit 2; }
rm -f "$3"
log=$(osslsigncode sign -certs "$1.pem" -ac "$1.ca.pem" -key "$1.key" -h sha256 -in "$2" -out "$3" 2>&1) ||
    { echo "$log" >&2; exit 1; }
