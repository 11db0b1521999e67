# SPDX-License-Identifier: MIT
# For the test scripts (sourced): starts norva-records-service on a free
# loopback port, stopped when the script ends.
#
#   start_service <norva-records-service> <log file> [options...] <data folder>
#     sets $address (as "listening on" gives it) and adds the process to $service_pids
service_pids=()
start_service() {
  local program=$1 log=$2
  shift 2
  "$program" --listen 127.0.0.1:0 "$@" > "$log" 2>&1 &
  service_pids+=($!)
  for _ in $(seq 100); do grep -q '^listening on' "$log" && break; sleep 0.1; done
  address=$(sed -n 's/^listening on //p' "$log")
  [ -n "$address" ] || { echo "the service did not start: $(cat "$log")" >&2; return 1; }
}
stop_services() { [ "${#service_pids[@]}" = 0 ] || kill "${service_pids[@]}" 2> /dev/null || true; }
