#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The GUI example, offscreen, against a local service: it logs in, uploads a
# board (which then stands in its list), cancels a second upload half way
# (which leaves nothing), and saves a picture of its window.
#
#   board_browser.sh <norva-records-service> <board_browser> <picture.png>
set -euo pipefail
service=$1 browser=$2 picture=$3
work=$(mktemp -d)
source "$(dirname "$0")/local_service.sh"
trap 'stop_services; rm -rf "$work"' EXIT
start_service "$service" "$work/service.log" "$work/data"
# Large enough that the second upload is still under way when it is cancelled.
head -c $((48 << 20)) /dev/urandom > "$work/panel.brd"
rm -f "$picture"
# Under the sanitizers: Qt's offscreen platform keeps its screen to the end.
LSAN_OPTIONS="suppressions=$(dirname "$0")/lsan-qt-offscreen.supp${LSAN_OPTIONS:+:$LSAN_OPTIONS}" \
  QT_QPA_PLATFORM=offscreen "$browser" --script "$picture" "$address" norva norva "$work/panel.brd"
[ -s "$picture" ] || { echo "board_browser.sh: no picture at $picture"; exit 1; }
echo "board_browser: logged in, uploaded, cancelled an upload, picture in $picture"
