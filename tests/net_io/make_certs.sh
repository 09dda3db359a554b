#!/bin/sh
# Makes the certificates of the TLS tests in directory $1 with the openssl
# tool: a CA; server.crt (CN server.test, subjectAltName DNS server.test,
# DNS alt.example.org, IP 127.0.0.1) signed by it; cnonly.crt (CN
# cn-only.test, no subjectAltName) signed by it; the self-signed self.crt
# (CN self.test); and forged.crt, a certificate of another key under a CA of
# the same name that carries server.crt's signature bytes.
set -e
cd "$1"
q() { "$@" >/dev/null 2>&1; }

q openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.crt -days 2 \
  -subj "/CN=Vesta Test CA"

# sign NAME SUBJECT [SAN [CA]]
sign() {
  q openssl req -newkey rsa:2048 -nodes -keyout "$1.key" -out "$1.csr" -subj "$2"
  if [ -n "$3" ]; then
    printf 'subjectAltName=%s\n' "$3" > "$1.ext"
  else
    : > "$1.ext"
  fi
  q openssl x509 -req -in "$1.csr" -CA "${4:-ca}.crt" -CAkey "${4:-ca}.key" -CAcreateserial \
    -out "$1.crt" -days 2 -extfile "$1.ext"
}

sign server "/CN=server.test" "DNS:server.test,DNS:alt.example.org,IP:127.0.0.1"
sign cnonly "/CN=cn-only.test" ""

q openssl req -x509 -newkey rsa:2048 -nodes -keyout self.key -out self.crt -days 2 \
  -subj "/CN=self.test"

q openssl req -x509 -newkey rsa:2048 -nodes -keyout fakeca.key -out fakeca.crt -days 2 \
  -subj "/CN=Vesta Test CA"
sign impostor "/CN=server.test" "DNS:server.test" fakeca
# A 2048-bit RSA signature is the last 256 bytes of the DER form.
der() { openssl x509 -in "$1.crt" -outform DER; }
{ der impostor | head -c -256; der server | tail -c 256; } > forged.der
openssl x509 -inform DER -in forged.der -out forged.crt
cp impostor.key forged.key
