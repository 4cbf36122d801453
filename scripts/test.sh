#!/usr/bin/env bash
# The README's test command: installs what is missing, then builds and runs every test suite twice,
# in a normal build and with AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

failed=()
run_suite() {  # run_suite NAME BUILD_DIR [cmake arguments]
  local name=$1 dir=$2
  shift 2
  echo "== $name: building in $dir"
  if ! scripts/build.sh "$dir" "$@"; then
    failed+=("$name (build)")
    return
  fi
  echo "== $name: running tests"
  if ! (cd "$dir" && ctest --output-on-failure -j "$(nproc)" --timeout 300); then
    failed+=("$name")
  fi
}

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
run_suite "normal build" build
run_suite "ASan+UBSan build" build-asan "-DTIDEWATCH_SANITIZE=address;undefined" \
  -DTIDEWATCH_BUILD_BENCH=OFF

if [ ${#failed[@]} -ne 0 ]; then
  echo "FAILED: ${failed[*]}"
  exit 1
fi
echo "All test runs passed."
