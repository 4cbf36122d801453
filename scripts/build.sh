#!/usr/bin/env bash
# Configures and builds one flavour of the host build: build.sh DIR [extra cmake arguments].
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build}
shift || true
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
cmake --build "$dir" -j "$(nproc)" 2>&1 | grep -v -E '^\[ *[0-9]+%\]' || true
test "${PIPESTATUS[0]}" -eq 0
