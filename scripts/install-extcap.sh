#!/bin/sh
# Makes the modem's traps a capture source in Wireshark: installs tide_watch_capture as an extcap
# program into DIR (default: Wireshark's extcap folder, as `tshark -G folders` names it) and the
# trap dissector into the personal Lua plugin folder, so that a live capture shows traps by name.
#
#   scripts/install-extcap.sh [DIR]
#
# Run it with sudo when DIR is the system's folder: the dissector still goes to the folder of the
# user who ran sudo. TIDEWATCH_CAPTURE_BIN names the binary (default: build/bin/tide_watch_capture).
set -eu

repo=$(cd "$(dirname "$0")/.." && pwd)
bin=${TIDEWATCH_CAPTURE_BIN:-$repo/build/bin/tide_watch_capture}
lua=$repo/tools/wireshark/tidewatch.lua

fail() {
  echo "install-extcap.sh: $*" >&2
  exit 1
}

# Runs a command as the user the dissector is for: the one behind sudo, if any.
as_user() {
  if [ "$(id -u)" = 0 ] && [ -n "${SUDO_USER:-}" ] && [ "$SUDO_USER" != root ]; then
    sudo -u "$SUDO_USER" -H "$@"
  else
    "$@"
  fi
}

[ -x "$bin" ] || fail "no capture tool at $bin: build it first (see the README)"
command -v tshark >/dev/null 2>&1 || fail "tshark is not installed (scripts/install-deps.sh)"

folder() {  # folder NAME: the path `tshark -G folders` gives for NAME
  as_user tshark -G folders 2>/dev/null | sed -n "s/^$1:[[:space:]]*//p" | head -n 1
}

dir=${1:-$(folder "Extcap path")}
[ -n "$dir" ] || fail "tshark names no extcap folder; give one: $0 DIR"
plugins=$(folder "Personal Lua Plugins")
[ -n "$plugins" ] || fail "tshark names no personal Lua plugin folder"

mkdir -p "$dir"
install -m 755 "$bin" "$dir/tide_watch_capture"
as_user mkdir -p "$plugins"
as_user install -m 644 "$lua" "$plugins/tidewatch.lua"

echo "extcap program: $dir/tide_watch_capture"
echo "dissector:      $plugins/tidewatch.lua"
echo "Interfaces now offered (tshark -D):"
tshark -D 2>/dev/null | grep tidewatch || echo "  none seen by this user: Wireshark reads $dir only if it is its extcap folder"
