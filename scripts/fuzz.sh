#!/usr/bin/env bash
# Builds the fuzz targets with clang (libFuzzer, ASan, UBSan over the library's own sources) and runs
# each for a bounded time, starting from its seed corpus in fuzz/corpus/<target>/. Any finding fails.
#   FUZZ_SECONDS  time per target (default 30)
#   FUZZ_TARGETS  space-separated subset of targets to run (default: all)
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${FUZZ_SECONDS:-30}
dir=build-fuzz

cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
  -DTIDEWATCH_BUILD_FUZZ=ON -DTIDEWATCH_BUILD_TESTS=OFF -DTIDEWATCH_BUILD_BENCH=OFF \
  "-DTIDEWATCH_SANITIZE=fuzzer-no-link;address;undefined" >/dev/null
# Only the fuzz targets and the libraries they link; the tool and the emulator binaries are not run.
build_log=$(mktemp)
# shellcheck disable=SC2086
if ! cmake --build "$dir" -j "$(nproc)" --target ${FUZZ_TARGETS:-tidewatch_fuzzers} >"$build_log" 2>&1
then
  grep -v -E '^\[ *[0-9]+%\]' "$build_log" || true
  rm -f "$build_log"
  echo "fuzz build FAILED"
  exit 1
fi
rm -f "$build_log"

targets=${FUZZ_TARGETS:-$(cd "$dir/fuzz" && ls *_fuzzer 2>/dev/null || true)}
if [ -z "$targets" ]; then
  echo "no fuzz targets built"
  exit 1
fi
export TIDEWATCH_HAL_WAIT_MS=0
export TIDEWATCH_HAL_SOCKET_PREFIX="fuzz-no-service-$$-"
failed=()
for t in $targets; do
  seeds=$PWD/fuzz/corpus/$t  # absolute: a target may change its working directory
  mkdir -p "$seeds"
  work=$(mktemp -d)
  mkdir -p "$work/corpus"
  log=$work/log
  options=()
  # A target's dictionary, when it has one: the keywords its input format is built from.
  if [ -f "fuzz/$t.dict" ]; then options+=("-dict=$PWD/fuzz/$t.dict"); fi
  echo "== fuzzing $t for ${seconds}s"
  if "$dir/fuzz/$t" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=4096 -print_final_stats=1 \
      "${options[@]}" -artifact_prefix="$work/" "$work/corpus" "$seeds" >"$log" 2>&1; then
    grep -E '^stat::number_of_executed_units|^Done' "$log" | tr '\n' ' '
    echo
  else
    echo "FINDING in $t:"
    tail -n 60 "$log"
    for a in "$work"/crash-* "$work"/leak-* "$work"/timeout-* "$work"/oom-*; do
      if [ -e "$a" ]; then cp "$a" "fuzz/findings-$t-$(basename "$a")"; echo "kept fuzz/findings-$t-$(basename "$a")"; fi
    done
    failed+=("$t")
  fi
  rm -rf "$work"
done
if [ ${#failed[@]} -ne 0 ]; then
  echo "fuzzing FAILED: ${failed[*]}"
  exit 1
fi
echo "fuzzing passed: $(echo $targets | wc -w) targets, ${seconds}s each"
