#!/usr/bin/env bash
# Generates the TLS material used by the tests into tests/data/tls/:
#   ca.pem                      test CA that tests trust (e.g. through SSL_CERT_FILE)
#   server.pem, server-key.pem  server certificate for DNS "localhost" and IP 127.0.0.1, signed by ca.pem
#   untrusted-ca.pem            a second CA that no test trusts
#   untrusted-server.pem, untrusted-server-key.pem
#                               server certificate for "localhost" signed by the untrusted CA
# Certificates are valid for 100 years so the committed files never expire under the tests.
# The output is committed; run this by hand only to replace it.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out="$root/tests/data/tls"
days=36500
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$out"

cat >"$work/ca.ext" <<'EXT'
basicConstraints = critical, CA:true
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
EXT
cat >"$work/server.ext" <<'EXT'
basicConstraints = critical, CA:false
keyUsage = critical, digitalSignature, keyEncipherment
extendedKeyUsage = serverAuth
subjectAltName = DNS:localhost, IP:127.0.0.1
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid:always
EXT

# make_ca NAME SUBJECT: self-signed CA certificate NAME.pem with its key in the work directory.
make_ca() {
  openssl req -x509 -new -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes \
    -keyout "$work/$1-key.pem" -out "$work/$1.pem" -days "$days" -subj "$2" \
    -extensions v3_ca -config <(printf '[req]\ndistinguished_name=dn\n[dn]\n[v3_ca]\n'; cat "$work/ca.ext") 2>/dev/null
}

# make_server CA NAME: server certificate NAME.pem and key NAME-key.pem signed by CA.
make_server() {
  openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes \
    -keyout "$work/$2-key.pem" -out "$work/$2.csr" -subj "/CN=localhost" 2>/dev/null
  openssl x509 -req -in "$work/$2.csr" -CA "$work/$1.pem" -CAkey "$work/$1-key.pem" \
    -set_serial "0x$(openssl rand -hex 16)" -days "$days" -sha256 -extfile "$work/server.ext" \
    -out "$work/$2.pem" 2>/dev/null
}

make_ca ca "/CN=qnbrl test CA"
make_server ca server
make_ca untrusted-ca "/CN=qnbrl untrusted test CA"
make_server untrusted-ca untrusted-server

openssl verify -CAfile "$work/ca.pem" "$work/server.pem" >/dev/null
openssl verify -CAfile "$work/untrusted-ca.pem" "$work/untrusted-server.pem" >/dev/null
if openssl verify -CAfile "$work/ca.pem" "$work/untrusted-server.pem" >/dev/null 2>&1; then
  echo "untrusted server certificate unexpectedly verifies against the test CA" >&2
  exit 1
fi

install -m 0644 "$work/ca.pem" "$work/server.pem" "$work/untrusted-ca.pem" "$work/untrusted-server.pem" "$out/"
install -m 0644 "$work/server-key.pem" "$work/untrusted-server-key.pem" "$out/"
echo "test certificates written to $out"
