#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The Windows build against the local records service running as the Linux
# program: norva.exe logs in, uploads a folder whose name and files go beyond
# ASCII (under Wine's Windows code page, not UTF-8), and downloads the file into
# another such folder; the bytes come back equal. Then the same over HTTPS,
# with Qt's TLS (OpenSSL 3).
#
#   windows_end_to_end.sh <linux norva-records-service> <norva.exe> <wine-test>
set -euo pipefail
service=$1 norva=$2 wine_test=$3
work=$(mktemp -d)
source "$(dirname "$0")/local_service.sh"
trap 'stop_services; rm -rf "$work"' EXIT
start_service "$service" "$work/service.log" "$work/data"

fail() { echo "windows_end_to_end: $*" >&2; exit 1; }
norva() { "$wine_test" "$norva" --no-session "$@" | tr -d '\r'; }
field() { sed -n "s/.*\"$1\":\"\\{0,1\\}\\([^\",}]*\\).*/\\1/p" <<<"$2"; }

login=$(norva login "ipconfig=$address" username=norva password=norva)
token=$(field token "$login")
[ -n "$token" ] || fail "login: $login"

mkdir -p "$work/dossier é" "$work/reçu"
printf 'G04 board\000\377 bytes*\r\n' > "$work/dossier é/plan ü.brd"
upload=$(norva upload_files "ipconfig=$address" "token=$token" "file_uploadpath=$(winepath -w "$work/dossier é")" \
  data.createuserid=1)
grep -q '"message":"import files success"' <<<"$upload" || fail "upload: $upload"
grep -q '^file path:' <<<"$upload" || fail "no file path line: $upload"

listed=$(norva select_origfiles_manage "ipconfig=$address" "token=$token" 'origfilename=plan')
board=$(field id "$listed")
[ -n "$board" ] || fail "list: $listed"
grep -q '"origfilename":"plan ü.brd"' <<<"$listed" || fail "the name did not arrive as UTF-8: $listed"

download=$(norva download_binary_file "ipconfig=$address" "token=$token" \
  "file_downloadpath=$(winepath -w "$work/reçu")" "data.id=$board" data.userId=1)
grep -q '"message":"download success"' <<<"$download" || fail "download: $download"
cmp "$work/dossier é/plan ü.brd" "$work/reçu/plan ü.brd" || fail "the bytes differ"

# HTTPS, with a certificate authority made here: the service's certificate is
# signed by it for 127.0.0.1; another authority's, and one for another host
# name, are refused before anything is sent.
openssl_quiet() { openssl "$@" > /dev/null 2>&1 || fail "openssl $1 failed"; }
make_ca() { # name
  openssl_quiet req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 -subj "/CN=norva test $1" \
    -keyout "$work/$1.key" -out "$work/$1.pem"
}
make_certificate() { # name, authority, subjectAltName
  openssl_quiet req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj "/CN=$1" -keyout "$work/$1.key" \
    -out "$work/$1.csr"
  printf 'subjectAltName=%s\nbasicConstraints=CA:FALSE\nextendedKeyUsage=serverAuth\n' "$3" > "$work/$1.ext"
  openssl_quiet x509 -req -in "$work/$1.csr" -CA "$work/$2.pem" -CAkey "$work/$2.key" -CAcreateserial -days 2 \
    -extfile "$work/$1.ext" -out "$work/$1.pem"
}
make_ca ca
make_ca other-ca
make_certificate service ca "IP:127.0.0.1,DNS:localhost"
make_certificate by-other-ca other-ca "IP:127.0.0.1"
make_certificate other-host ca "DNS:board-host.example"
cacert=$(winepath -w "$work/ca.pem")

start_service "$service" "$work/tls.log" --tls-cert "$work/service.pem" --tls-key "$work/service.key" "$work/tls-data"
tls=$address
[[ $tls == https://* ]] || fail "no HTTPS service: $(cat "$work/tls.log")"

login=$(norva --cacert "$cacert" login "ipconfig=$tls" username=norva password=norva)
token=$(field token "$login")
[ -n "$token" ] || fail "https login: $login"
mkdir -p "$work/tls-up" "$work/tls-down"
printf 'G04 over TLS*\r\n' > "$work/tls-up/tls.brd"
upload=$(norva --cacert "$cacert" upload_files "ipconfig=$tls" "token=$token" \
  "file_uploadpath=$(winepath -w "$work/tls-up")" data.createuserid=1)
grep -q '"message":"import files success"' <<<"$upload" || fail "https upload: $upload"
listed=$(norva --cacert "$cacert" select_origfiles_manage "ipconfig=$tls" "token=$token" 'origfilename=tls')
board=$(field id "$listed")
[ -n "$board" ] || fail "https query: $listed"
download=$(norva --cacert "$cacert" download_binary_file "ipconfig=$tls" "token=$token" \
  "file_downloadpath=$(winepath -w "$work/tls-down")" "data.id=$board" data.userId=1)
grep -q '"message":"download success"' <<<"$download" || fail "https download: $download"
cmp "$work/tls-up/tls.brd" "$work/tls-down/tls.brd" || fail "the bytes differ over https"
# The asynchronous face: norva batch.
printf '{"operation":"select_origfiles_manage","argument":{"ipconfig":"%s","token":"%s","origfilename":"tls"}}\n' \
  "$tls" "$token" > "$work/batch.jsonl"
batch=$(norva --cacert "$cacert" batch --jobs 2 "$(winepath -w "$work/batch.jsonl")")
grep -q "\"id\":$board" <<<"$batch" || fail "https batch: $batch"
# Without the authority, the service is not trusted.
untrusted=$(norva select_origfiles_manage "ipconfig=$tls" "token=$token" 'origfilename=tls') || true
[ "$untrusted" = '{"message":"Server shuts down","status":400}' ] || fail "https without --cacert: $untrusted"

# Refused certificates, served by openssl s_server, which prints whatever
# arrives through TLS: no request may.
for certificate in by-other-ca other-host; do
  # Its standard input stays open (at its end it would stop serving).
  mkfifo "$work/$certificate.input"
  exec 5<> "$work/$certificate.input"
  openssl s_server -accept 127.0.0.1:0 -cert "$work/$certificate.pem" -key "$work/$certificate.key" \
    > "$work/$certificate.received" 2>&1 <&5 &
  server=$!
  for _ in $(seq 50); do grep -q '^ACCEPT' "$work/$certificate.received" && break; sleep 0.1; done
  port=$(sed -n 's/^ACCEPT 127.0.0.1://p' "$work/$certificate.received")
  [ -n "$port" ] || fail "openssl s_server did not start: $(cat "$work/$certificate.received")"
  for call in "login username=norva password=norva" \
              "download_binary_file file_downloadpath=$(winepath -w "$work/tls-down") data.id=1"; do
    # shellcheck disable=SC2086 # the operation and its words
    refused=$(norva --cacert "$cacert" $call "ipconfig=https://127.0.0.1:$port") || true
    [ "$refused" = '{"message":"Server shuts down","status":400}' ] || fail "$certificate ${call%% *}: $refused"
  done
  kill "$server"; wait "$server" 2> /dev/null || true
  exec 5>&-
  # Both calls reached it, and the client left each handshake unfinished.
  [ "$(grep -ac '^ERROR' "$work/$certificate.received")" -ge 2 ] \
    || fail "$certificate: not refused in two handshakes: $(cat "$work/$certificate.received")"
  ! grep -aq 'HTTP/1.1' "$work/$certificate.received" || fail "$certificate: a request came: $(cat "$work/$certificate.received")"
done
echo "windows_end_to_end: login, folder upload and download beyond ASCII, and HTTPS (trusted: login, upload," \
  "download, query and batch; another authority, another host name and no --cacert refused): passed"
