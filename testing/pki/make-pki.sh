#!/bin/sh
# Makes a throw-away code-signing PKI for the signature tests, with openssl only.
#   make-pki.sh <outdir>
# Writes to <outdir>:
#   root.pem root.key          trusted test root (import it with root-reg.py)
#   rogue-root.pem rogue-root.key  a second root that is never trusted
#   <leaf>.pem <leaf>.key <leaf>.ca.pem   one signing identity each, with its issuing root
# Leaves (file name: subject common name):
#   plain: PlainSigner       valid, code signing
#   expired: ExpiredSigner   code signing, validity ended in 2021
#   wrongusage: WrongUsage   server authentication only
#   org: "Org, Inc."         valid, a comma in the name
#   lowercase: plainsigner   valid, PlainSigner in other letter case
#   rogue: RogueSigner       valid, issued by the untrusted root
#   lookalike: U+FF30 "lainSigner"   valid, a full-width look-alike of PlainSigner
#   forged: O=Org + OU="x, 2.5.4.3=PlainSigner, y", CN=ForgedSigner   valid
#   tarnsm: TarnSM           valid, named like the control's own configuration key
# Leaves are issued with SHA-1 on purpose: Wine applies the chain policy (untrusted root,
# expiry) only to SHA-1-issued leaves, and Windows accepts either.
set -eu
[ $# -eq 1 ] || { echo "usage: make-pki.sh <outdir>" >&2; exit 2; }
mkdir -p "$1"
out=$(cd "$1" && pwd)
cnf="$out/openssl.cnf"
bits=2048

cat >"$cnf" <<CNF
[ req ]
distinguished_name = dn
string_mask = utf8only
prompt = no
[ dn ]
CN = unused

[ trusted_ca ]
dir = $out/db-root
database = \$dir/index.txt
new_certs_dir = \$dir
serial = \$dir/serial
certificate = $out/root.pem
private_key = $out/root.key
default_md = sha1
policy = policy_cn
unique_subject = no
email_in_dn = no
copy_extensions = none

[ rogue_ca ]
dir = $out/db-rogue
database = \$dir/index.txt
new_certs_dir = \$dir
serial = \$dir/serial
certificate = $out/rogue-root.pem
private_key = $out/rogue-root.key
default_md = sha1
policy = policy_cn
unique_subject = no
email_in_dn = no
copy_extensions = none

[ policy_cn ]
commonName = supplied

[ root_ext ]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash

[ codesign_ext ]
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature
extendedKeyUsage = codeSigning
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid

[ serverauth_ext ]
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature, keyEncipherment
extendedKeyUsage = serverAuth
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
CNF

quiet() {
    log="$out/openssl.log"
    if ! "$@" >>"$log" 2>&1; then
        echo "make-pki: failed: $*" >&2
        cat "$log" >&2
        exit 1
    fi
}

# A root valid from 2000, so that the expired leaf's validity lies inside its issuer's.
make_root() {  # <file stem> <ca section> <database name> <common name>
    mkdir -p "$out/db-$3"
    : >"$out/db-$3/index.txt"
    echo 01 >"$out/db-$3/serial"
    quiet openssl req -new -newkey rsa:$bits -nodes -keyout "$out/$1.key" -out "$out/$1.csr" \
        -subj "/CN=$4" -config "$cnf"
    quiet openssl ca -batch -config "$cnf" -name "$2" -selfsign -keyfile "$out/$1.key" -md sha256 \
        -startdate 20000101000000Z -enddate 20491231235959Z -extensions root_ext \
        -in "$out/$1.csr" -out "$out/$1.pem" -notext
    rm -f "$out/$1.csr"
}

make_leaf() {  # <file stem> <ca section> <issuer stem> <extension section> <common name> [start end]
    quiet openssl req -new -newkey rsa:$bits -nodes -keyout "$out/$1.key" -out "$out/$1.csr" \
        -subj "/CN=$5" -config "$cnf"
    if [ $# -ge 7 ]; then
        validity="-startdate $6 -enddate $7"
    else
        validity="-days 3650"
    fi
    # shellcheck disable=SC2086
    quiet openssl ca -batch -config "$cnf" -name "$2" -md sha1 $validity -extensions "$4" \
        -in "$out/$1.csr" -out "$out/$1.pem" -notext
    cp "$out/$3.pem" "$out/$1.ca.pem"
    rm -f "$out/$1.csr"
}

# A leaf whose whole subject is given, kept as requested (UTF-8, several attributes in one
# component).
make_subject_leaf() {  # <file stem> <subject>
    quiet openssl req -new -newkey rsa:$bits -nodes -keyout "$out/$1.key" -out "$out/$1.csr" \
        -utf8 -multivalue-rdn -subj "$2" -config "$cnf"
    quiet openssl ca -batch -config "$cnf" -name trusted_ca -md sha1 -days 3650 -preserveDN \
        -extensions codesign_ext -in "$out/$1.csr" -out "$out/$1.pem" -notext
    cp "$out/root.pem" "$out/$1.ca.pem"
    rm -f "$out/$1.csr"
}

: >"$out/openssl.log"
make_root root trusted_ca root TarnTestRoot
make_root rogue-root rogue_ca rogue TarnRogueRoot
make_leaf plain trusted_ca root codesign_ext PlainSigner
make_leaf expired trusted_ca root codesign_ext ExpiredSigner 20200101000000Z 20210101000000Z
make_leaf wrongusage trusted_ca root serverauth_ext WrongUsage
make_leaf org trusted_ca root codesign_ext "Org, Inc."
make_leaf lowercase trusted_ca root codesign_ext plainsigner
make_leaf rogue rogue_ca rogue-root codesign_ext RogueSigner
make_subject_leaf lookalike "/CN=$(printf '\357\274\260')lainSigner"
make_subject_leaf forged "/O=Org+OU=x, 2.5.4.3=PlainSigner, y/CN=ForgedSigner"
make_leaf tarnsm trusted_ca root codesign_ext TarnSM
