#!/usr/bin/env bash
# The Windows build against the local records service running as the Linux
# program: norva.exe logs in, uploads a folder whose name and files go beyond
# ASCII (under Wine's Windows code page, not UTF-8), and downloads the file into
# another such folder; the bytes come back equal. Then, with this Qt built
# without TLS, an https:// service gives the no-reply result and a line on
# standard error that says why.
#
#   windows_end_to_end.sh <linux norva-records-service> <norva.exe> <wine-test>
set -euo pipefail
service=$1 norva=$2 wine_test=$3
work=$(mktemp -d)
"$service" --listen 127.0.0.1:0 "$work/data" > "$work/service.log" 2>&1 &
pid=$!
trap 'kill $pid 2>/dev/null; rm -rf "$work"' EXIT
for _ in $(seq 100); do grep -q '^listening on' "$work/service.log" && break; sleep 0.1; done
address=$(sed -n 's/^listening on //p' "$work/service.log")

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
"$service" --listen 127.0.0.1:0 --tls-self-signed "$work/tls-data" > "$work/tls.log" 2>&1 &
tls_pid=$!
trap 'kill $pid $tls_pid 2>/dev/null; rm -rf "$work"' EXIT
for _ in $(seq 100); do grep -q '^listening on' "$work/tls.log" && break; sleep 0.1; done
tls_address=$(sed -n 's/^listening on //p' "$work/tls.log")
[[ $tls_address == https://* ]] || fail "no HTTPS service: $(cat "$work/tls.log")"
for operation in login download_binary_file; do
  refused=$("$wine_test" "$norva" --no-session "$operation" "ipconfig=$tls_address" username=norva password=norva \
    "file_downloadpath=$(winepath -w "$work/reçu")" data.id=1 2> "$work/stderr" | tr -d '\r') || true
  [ "$refused" = '{"message":"Server shuts down","status":400}' ] || fail "https $operation: $refused"
  grep -q "needs TLS, and this Qt was built without it; HTTPS needs a Qt built with OpenSSL" "$work/stderr" \
    || fail "https $operation said: $(cat "$work/stderr")"
done
echo "windows_end_to_end: login, folder upload and download beyond ASCII, and HTTPS refused without TLS: passed"
