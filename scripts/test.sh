#!/usr/bin/env bash
# The README's test command: installs what is missing, then builds and runs every check:
#   1. every test suite in a normal build (build/)
#   2. every test suite with AddressSanitizer and UndefinedBehaviorSanitizer (build-asan/)
#   3. the threaded suites with ThreadSanitizer (build-tsan/)
#   4. every fuzz target for a bounded time (build-fuzz/, scripts/fuzz.sh)
#   5. the device build's checks: AIDL, HIDL, Android.bp format, AArch64 under qemu
#      (scripts/device-checks.sh)
# Set TIDEWATCH_STAGES to a subset ("normal asan tsan fuzz device") to run only those.
set -uo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh || exit 1
stages=${TIDEWATCH_STAGES:-normal asan tsan fuzz device}
jobs=$(nproc)

# The suites whose units run threads of their own, checked for data races.
threaded_suites=(
  platform_host_hal_service_test
  transport_socket_listener_test
  transport_mcp_receiver_test
  transport_hidl_mcp_transmitter_host_test
  trap_monitor_trap_receiver_test
  trap_frame_decoder_test
  e2e_capture_file_test
)

passed=()
failed=()
record() {  # record NAME STATUS
  if [ "$2" -eq 0 ]; then passed+=("$1"); else failed+=("$1"); fi
}

run_ctest() {  # run_ctest BUILD_DIR [ctest arguments]
  local dir=$1
  shift
  (cd "$dir" && ctest --output-on-failure -j "$jobs" --timeout 300 "$@")
}

stage_normal() {
  scripts/build.sh build && run_ctest build
}

stage_asan() {
  scripts/build.sh build-asan "-DTIDEWATCH_SANITIZE=address;undefined" -DTIDEWATCH_BUILD_BENCH=OFF &&
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1 \
      UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 run_ctest build-asan
}

stage_tsan() {
  local targets=() labels
  for t in "${threaded_suites[@]}"; do targets+=(--target "$t"); done
  labels=$(IFS='|'; echo "^(${threaded_suites[*]})\$")
  cmake -S . -B build-tsan -DTIDEWATCH_SANITIZE=thread -DTIDEWATCH_BUILD_BENCH=OFF >/dev/null &&
    cmake --build build-tsan -j "$jobs" --target tidewatch_hal_emulator "${targets[@]}" 2>&1 |
    sed -E '/^\[ *[0-9]+%\]/d'
  [ "${PIPESTATUS[0]}" -eq 0 ] || return 1
  TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 run_ctest build-tsan -L "$labels"
}

stage_fuzz() {
  scripts/fuzz.sh
}

stage_device() {
  scripts/device-checks.sh
}

start=$(date +%s)
for stage in $stages; do
  echo "== stage $stage"
  t0=$(date +%s)
  "stage_$stage"
  status=$?
  record "$stage" "$status"
  echo "== stage $stage: $([ "$status" -eq 0 ] && echo passed || echo FAILED) in $(($(date +%s) - t0))s"
done

echo "== $(($(date +%s) - start))s in all; passed: ${passed[*]:-none}; failed: ${failed[*]:-none}"
echo "stages: ${#passed[@]} passed, ${#failed[@]} failed"
[ ${#failed[@]} -eq 0 ] && echo "All test runs passed."
[ ${#failed[@]} -eq 0 ]
