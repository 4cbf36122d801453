#!/usr/bin/env bash
# The README's main-job command: builds the tool, the capture tool and the service emulator, then
# runs a short monitor session against the emulator, printing each command before its output, and
# a capture of named traps. Everything it starts is stopped on the way out, and its files
# (current_session included) stay in a temporary folder, never in the repository.
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$(pwd)

scripts/install-deps.sh
# The build's own progress lines show that it is under way; the tests are not built here.
echo "== building tide_watch_ctrl, tide_watch_capture and the emulator into build/"
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)" --target tide_watch_ctrl tide_watch_capture tidewatch_hal_emulator
bin=$repo/build/bin

work=$(mktemp -d "${TMPDIR:-/tmp}/tidewatch-demo.XXXXXX")
emulator_pid=""
receiver_pid=""
capture_pid=""
cleanup() {
  for pid in $capture_pid $receiver_pid $emulator_pid; do
    kill "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  done
  rm -rf "$work"
}
trap cleanup EXIT

# A private prefix keeps this emulator apart from any other on the machine.
export TIDEWATCH_HAL_SOCKET_PREFIX="tidewatch-demo.$$."
mkdir "$work/resources"
cp resources/twd_layout_desc.dat "$work/resources/"

echo "== starting the service emulator (5 traps a second per receiving session)"
"$bin/tidewatch_hal_emulator" --trap-rate 5 >"$work/emulator.out" 2>"$work/emulator.err" &
emulator_pid=$!
for _ in $(seq 100); do
  grep -q 'tidewatch_hal_emulator: ready' "$work/emulator.out" && break
  kill -0 "$emulator_pid" 2>/dev/null || { cat "$work/emulator.err" >&2; exit 1; }
  sleep 0.1
done
grep -q 'tidewatch_hal_emulator: ready' "$work/emulator.out" || { echo "emulator not ready" >&2; exit 1; }

# The tool's library logs only errors, on standard error; the demo shows standard output only.
ctl() {
  echo "\$ tide_watch_ctrl $*"
  local status=0 out
  out=$(cd "$work" && "$bin/tide_watch_ctrl" "$@" 2>>"$work/tool.err") || status=$?
  # Many of the tool's messages end without a line feed; each output gets exactly one here.
  if [ -n "$out" ]; then printf '%s\n' "$out"; fi
  if [ "$status" -ne 0 ]; then echo "(exit status $status)"; fi
}

# Message ids named in resources/twd_layout_desc.dat: one OTA (GLOBAL_ID) and one EM (MSG_INFO).
ota_id=1012  # LTE_RRC_CONNECTION_RECONFIGURATION
em_id=2000   # EM_LTE_SERVING_CELL_INFO

ctl --create-session level=1
ctl --subscribe-trap type=OTA msgId=$ota_id
ctl --subscribe-trap type=EM msgId=$em_id
ctl --enable-trap
ctl --set-trap-receiver servername=demo
ctl --get-session
ctl --list-session

echo "\$ tide_watch_ctrl --run-trap-receiver servername=demo   (for 3 seconds)"
(cd "$work" && exec "$bin/tide_watch_ctrl" --run-trap-receiver servername=demo 2>>"$work/tool.err") &
receiver_pid=$!
sleep 3
kill "$receiver_pid" 2>/dev/null || true
wait "$receiver_pid" 2>/dev/null || true
receiver_pid=""
echo "  (receiver stopped)"

ctl --disable-trap
ctl --close-session

# The capture tool opens its own session, subscribes by name, prints named traps with their values
# and closes the session when it stops; its summary comes on standard error.
echo "\$ tide_watch_capture --em 'EM_LTE_SERVING_*' --ota 'LTE_RRC_CONNECTION_RE*'   (Ctrl-C after 3 seconds)"
(cd "$work" && exec "$bin/tide_watch_capture" --em 'EM_LTE_SERVING_*' --ota 'LTE_RRC_CONNECTION_RE*') &
capture_pid=$!
sleep 3
kill -INT "$capture_pid" 2>/dev/null || true
wait "$capture_pid" || echo "(exit status $?)"
capture_pid=""
echo "\$ tide_watch_capture --em EM_LTE_SERVING_CELL_INFO --format json -c 3"
(cd "$work" && "$bin/tide_watch_capture" --em EM_LTE_SERVING_CELL_INFO --format json -c 3) ||
  echo "(exit status $?)"
echo "== nothing is left behind: a root session lists every session there is"
ctl --create-session level=2
ctl --list-session
ctl --close-session
echo "== done"
