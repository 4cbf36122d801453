#!/usr/bin/env bash
# Installs the Debian packages the project needs, when any is missing. Run as root on Debian 12.
set -euo pipefail

# libclang-rt-14-dev holds clang's sanitizer and libFuzzer runtimes; clang only recommends it, and
# recommended packages are not installed below. tshark and wireshark-common (capinfos) check every
# capture file the tests write, and run the Wireshark dissector. chromium renders the capture report
# in its browser test and makes the README's screenshot.
packages=(build-essential cmake pkg-config python3 libjsoncpp-dev googletest libgtest-dev libgmock-dev
  libbenchmark-dev libcli11-dev clang libclang-rt-14-dev tshark wireshark-common chromium "$@")

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi
echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
