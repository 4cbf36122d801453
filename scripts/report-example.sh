#!/usr/bin/env bash
# Makes the README's picture of a capture report: captures the service emulator for a while with
# --report, stalls the capture for a moment so that the service drops traps (the report marks
# them), and renders the page with headless Chromium.
#
#   scripts/report-example.sh [BUILD_DIR] [SECONDS] [PNG]
#
# Defaults: build, 120 seconds, docs/report-example.png. The HTML report itself is left in
# $TMPDIR/report-example.html.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
seconds=${2:-120}
png=${3:-docs/report-example.png}
html=${TMPDIR:-/tmp}/report-example.html
work=$(mktemp -d)
emulator=""
cleanup() {
  [ -n "$emulator" ] && kill "$emulator" 2>/dev/null && wait "$emulator" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

export TIDEWATCH_HAL_SOCKET_PREFIX=report-example.$$.
"$build/bin/tidewatch_hal_emulator" --trap-rate 2 >"$work/emulator.out" 2>&1 &
emulator=$!
for _ in $(seq 100); do
  grep -q ready "$work/emulator.out" && break
  sleep 0.1
done

# Few messages at a low rate: the emulator's values move with the count of traps it has sent the
# session, so that is when they wander slowly enough to follow.
"$build/bin/tide_watch_capture" --em EM_LTE_SERVING_CELL_INFO \
  --ota LTE_RRC_MEASUREMENT_REPORT --duration "$seconds" -q --report "$html" &
capture=$!
# A stalled reader: the service's queue for it overflows, and it reports what it dropped.
sleep $((seconds / 2))
kill -STOP "$capture"
sleep 3
kill -CONT "$capture"
wait "$capture"

chromium --headless --no-sandbox --disable-gpu --disable-background-networking \
  --disable-component-update --disable-sync --no-first-run --hide-scrollbars \
  --user-data-dir="$work/profile" --window-size=1280,2250 --screenshot="$png" "file://$html" \
  2>/dev/null
echo "wrote $png (of $html)"
