#!/bin/sh
# Makes a throw-away code-signing PKI for the signature tests, with openssl only.
#   make-pki.sh <outdir>
# Writes root.pem/.key (the trusted test root: import it with root-reg.py), rogue-root.pem/.key
# (never trusted), and per leaf <leaf>.pem, <leaf>.key and <leaf>.ca.pem (its issuing root).
# Leaves are issued with SHA-1 on purpose: Wine applies the chain policy (untrusted root,
# expiry) only to SHA-1-issued leaves, and Windows accepts either.
set -eu
[ $# -eq 1 ] || { echo "usage: make-pki.sh <outdir>" >&2; exit 2; }
mkdir -p "$1"
out=$(cd "$1" && pwd)
cnf="$out/openssl.cnf"
: >"$out/openssl.log"
{
    printf '[ req ]\ndistinguished_name = dn\nstring_mask = utf8only\nprompt = no\n[ dn ]\nCN = unused\n'
    for ca in root rogue-root; do
        printf '[ %s ]\ndir = %s/db-%s\ndatabase = $dir/index.txt\nnew_certs_dir = $dir\nserial = $dir/serial\n' "$ca" "$out" "$ca"
        printf 'certificate = %s/%s.pem\nprivate_key = %s/%s.key\n' "$out" "$ca" "$out" "$ca"
        printf 'default_md = sha1\npolicy = policy_cn\nunique_subject = no\nemail_in_dn = no\ncopy_extensions = none\n'
    done
    printf '[ policy_cn ]\ncommonName = supplied\n'
    printf '[ root_ext ]\nbasicConstraints = critical, CA:TRUE\nkeyUsage = critical, keyCertSign, cRLSign\n'
    printf 'subjectKeyIdentifier = hash\n'
    for ext in codeSigning serverAuth; do
        printf '[ %s ]\nbasicConstraints = critical, CA:FALSE\nkeyUsage = critical, digitalSignature\n' "$ext"
        printf 'extendedKeyUsage = %s\nsubjectKeyIdentifier = hash\nauthorityKeyIdentifier = keyid\n' "$ext"
    done
} >"$cnf"

quiet() {
    "$@" >>"$out/openssl.log" 2>&1 || { echo "make-pki: failed: $*" >&2; cat "$out/openssl.log" >&2; exit 1; }
}
request() {  # <file stem> <subject>: a key and a request whose subject is kept as given
    quiet openssl req -new -newkey rsa:2048 -nodes -keyout "$out/$1.key" -out "$out/$1.csr" \
        -utf8 -multivalue-rdn -subj "$2" -config "$cnf"
}
# Roots valid from 2000, so that the expired leaf's validity lies inside its issuer's.
for ca in root:TarnTestRoot rogue-root:TarnRogueRoot; do
    stem=${ca%%:*}
    mkdir -p "$out/db-$stem" && : >"$out/db-$stem/index.txt" && echo 01 >"$out/db-$stem/serial"
    request "$stem" "/CN=${ca#*:}"
    quiet openssl ca -batch -config "$cnf" -name "$stem" -selfsign -keyfile "$out/$stem.key" -md sha256 \
        -startdate 20000101000000Z -enddate 20491231235959Z -extensions root_ext \
        -in "$out/$stem.csr" -out "$out/$stem.pem" -notext
done
leaf() {  # <file stem> <issuer stem> <extended key usage> <subject> [start end]
    request "$1" "$4"
    validity="-days 3650"
    [ $# -ge 6 ] && validity="-startdate $5 -enddate $6"
    # shellcheck disable=SC2086
    quiet openssl ca -batch -config "$cnf" -name "$2" -md sha1 $validity -preserveDN -extensions "$3" \
        -in "$out/$1.csr" -out "$out/$1.pem" -notext
    cp "$out/$2.pem" "$out/$1.ca.pem"
}
leaf plain root codeSigning /CN=PlainSigner
leaf expired root codeSigning /CN=PlainSigner 20200101000000Z 20210101000000Z  # a listed name: only the date fails
leaf wrongusage root serverAuth /CN=WrongUsage
leaf org root codeSigning "/CN=Org, Inc."                   # a comma in the name
leaf lowercase root codeSigning /CN=plainsigner             # PlainSigner in other letter case
leaf rogue rogue-root codeSigning /CN=PlainSigner           # a listed name issued by the untrusted root
leaf lookalike root codeSigning "/CN=$(printf '\357\274\260')lainSigner"  # U+FF30: full-width P
leaf forged root codeSigning "/O=Org+OU=x, 2.5.4.3=PlainSigner, y/CN=ForgedSigner"
leaf tarnsm root codeSigning /CN=TarnSM                     # named like the control's own key
rm -f "$out"/*.csr
