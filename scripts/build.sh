#!/usr/bin/env bash
# Configures and builds one flavour of the host build: build.sh DIR [extra cmake arguments].
# Progress lines are left out; warnings and errors are shown.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build}
shift || true
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
cmake --build "$dir" -j "$(nproc)" 2>&1 | sed -E '/^\[ *[0-9]+%\]/d'
