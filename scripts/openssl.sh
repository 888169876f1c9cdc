# What the openssl command says about tags, secrets and signatures; sourced, never run.
# shellcheck shell=bash disable=SC2154 # $work is set by the script that sources this
#
# Keys and signatures come as the library has them, in hexadecimal: private keys 32 bytes, public keys
# 64 (X, Y) or 33 (compressed), signatures 64 (r, s). Files go to the directory $work.

from_hex() {
    printf '%b' "$(sed 's/../\\x&/g')"
}

to_hex() {
    od -An -v -tx1 | tr -d ' \n'
}

# hmac_sha256 KEY: of standard input.
hmac_sha256() {
    openssl dgst -sha256 -mac HMAC -macopt "hexkey:$1" | sed 's/.*= //'
}

# private_key_file KEY: an ECPrivateKey of RFC 5915, in DER.
private_key_file() {
    from_hex <<<"30310201010420$1a00a06082a8648ce3d030107" >"$work/private.der"
    echo "$work/private.der"
}

# public_key_file KEY: a SubjectPublicKeyInfo of RFC 5480, in DER.
public_key_file() {
    local point=$1 algorithm=301306072a8648ce3d020106082a8648ce3d030107
    case ${#1} in
        128) from_hex <<<"3059${algorithm}03420004$point" ;;
        66) from_hex <<<"3039${algorithm}032200$point" ;;
    esac >"$work/public.der"
    echo "$work/public.der"
}

# shared_secret PRIVATE-KEY PUBLIC-KEY
shared_secret() {
    openssl pkeyutl -derive -keyform DER -inkey "$(private_key_file "$1")" \
        -peerform DER -peerkey "$(public_key_file "$2")" | to_hex
}

# signature_holds PUBLIC-KEY SIGNATURE: of the SHA-256 on standard input, 32 bytes.
signature_holds() {
    cat >"$work/hash"
    printf 'asn1=SEQUENCE:s\n[s]\nr=INTEGER:0x%s\ns=INTEGER:0x%s\n' \
        "${2:0:64}" "${2:64}" >"$work/signature.conf"
    openssl asn1parse -genconf "$work/signature.conf" -noout -out "$work/signature.der"
    openssl pkeyutl -verify -pubin -keyform DER -inkey "$(public_key_file "$1")" \
        -sigfile "$work/signature.der" -in "$work/hash" >/dev/null
}
