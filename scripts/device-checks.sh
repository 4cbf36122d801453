#!/usr/bin/env bash
# The checks of the device build that can run on a Linux host, one PASS or FAIL line each; exits
# non-zero when any fails. Android's own headers and build system are not available here, so this
# checks what can be checked without them:
#   aidl      the AIDL interfaces compile with the NDK backend, and their frozen version 1 is intact
#   hidl      the HIDL package passes the HIDL compiler's checks, frozen hashes included
#   bpfmt     every Android.bp is formatted as bpfmt formats it
#   aarch64   the library, the tool and the unit tests cross-compile for AArch64 (-Werror) and every
#             unit test passes under user-mode emulation
# Arguments name the checks to run (default: all). The AArch64 build lives in build-aarch64
# (TIDEWATCH_AARCH64_BUILD_DIR overrides it).
set -uo pipefail
cd "$(dirname "$0")/.." || exit 1
root=$PWD

SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
# The arm64 dependencies are multiarch packages; install-deps.sh refreshes the package lists when
# it has something to install, which includes them after the architecture is first added.
if ! dpkg --print-foreign-architectures | grep -qx arm64; then
  $SUDO dpkg --add-architecture arm64
fi
scripts/install-deps.sh aidl hidl-gen blueprint-tools g++-aarch64-linux-gnu qemu-user \
  libjsoncpp-dev:arm64 libgtest-dev:arm64 libgmock-dev:arm64 || exit 1

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

passed=0
failed=0
# check NAME FUNCTION: runs FUNCTION with its output in a log, which is shown only on failure.
check() {
  local name=$1 fn=$2 log="$work/$1.log"
  if "$fn" >"$log" 2>&1; then
    # A check that ran tests says how many.
    echo "PASS $name$(grep -Eo ', [0-9]+ tests failed out of [0-9]+' "$log" | tail -1 |
      sed 's/^, 0 tests failed out of \(.*\)/: \1 tests passed/')"
    passed=$((passed + 1))
  else
    echo "FAIL $name"
    sed 's/^/    /' "$log"
    failed=$((failed + 1))
  fi
}

aidl_dir=interfaces/aidl
aidl_pkg=vendor/velora/hardware/tidewatch
aidl_api=$aidl_dir/aidl_api/vendor.velora.hardware.tidewatch

# Copies the .aidl files below $1 to $2 without their @VintfStability lines: Debian's compiler
# predates the annotation and crashes on it.
strip_vintf() {
  mkdir -p "$2"
  (cd "$1" && find . -name '*.aidl' -print0 | xargs -0 -I{} cp --parents {} "$2/")
  find "$2" -name '*.aidl' -exec sed -i '/^@VintfStability$/d' {} +
}

# Compiles every interface below $1 with the NDK backend into $2 and checks the headers exist.
compile_ndk() {
  local src=$1 out=$2 file base
  for file in "$src/$aidl_pkg"/*.aidl; do
    base=$(basename "$file" .aidl)
    aidl --lang=ndk --structured --version=1 -I "$src" -h "$out/include" -o "$out/src" "$file" ||
      return 1
    for header in "$base" "Bn${base#I}" "Bp${base#I}"; do
      [ -f "$out/include/aidl/$aidl_pkg/$header.h" ] || {
        echo "no $header.h generated for $file"
        return 1
      }
    done
  done
}

# The declarations of an AIDL file, without comments and layout, for comparing versions.
aidl_tokens() {
  python3 - "$1" <<'EOF'
import re, sys
text = open(sys.argv[1]).read()
text = re.sub(r"/\*.*?\*/", " ", text, flags=re.S)
text = re.sub(r"//[^\n]*", " ", text)
text = re.sub(r"\bvendor\.velora\.hardware\.tidewatch\.(?=I)", "", text)  # qualified names
text = re.sub(r"^\s*import [^;]*;", " ", text, flags=re.M)
print(" ".join(re.findall(r"[A-Za-z_][A-Za-z0-9_.]*|\S", text)))
EOF
}

check_aidl() {
  local file ok=0 snapshot frozen
  for file in "$aidl_dir/$aidl_pkg"/*.aidl; do
    # Stripped for the old compiler, so checked here: a vendor HAL's types must all be VINTF-stable.
    grep -qx '@VintfStability' "$file" || {
      echo "$file: not annotated @VintfStability"
      ok=1
    }
  done
  strip_vintf "$aidl_dir" "$work/aidl-src"
  compile_ndk "$work/aidl-src" "$work/aidl-out" || ok=1
  # The frozen version must compile, hash as recorded, and (like 'current') declare exactly what
  # the sources declare: version 1 is the only version, so nothing may have changed since.
  for snapshot in 1 current; do
    strip_vintf "$aidl_api/$snapshot" "$work/aidl-$snapshot"
    compile_ndk "$work/aidl-$snapshot" "$work/aidl-$snapshot-out" || ok=1
    for file in "$aidl_dir/$aidl_pkg"/*.aidl; do
      frozen="$aidl_api/$snapshot/$aidl_pkg/$(basename "$file")"
      if [ ! -f "$frozen" ] || [ "$(aidl_tokens "$file")" != "$(aidl_tokens "$frozen")" ]; then
        echo "$frozen does not declare what $file declares"
        ok=1
      fi
    done
  done
  local recorded computed
  recorded=$(tail -1 "$aidl_api/1/.hash")
  computed=$(cd "$aidl_api/1" && { find ./ -name "*.aidl" -print0 | LC_ALL=C sort -z |
    xargs -0 sha1sum && echo latest-version; } | sha1sum | cut -d " " -f 1)
  [ "$recorded" = "$computed" ] || {
    echo "$aidl_api/1/.hash records $recorded, the files hash to $computed"
    ok=1
  }
  return $ok
}

# hidl-gen needs android.hidl.base@1.0, which Debian does not ship: a stand-in with an empty IBase
# is enough to check a package that uses nothing of it, and its own current.txt freezes it so
# that our frozen interfaces may depend on it.
check_hidl() {
  local base="$work/hidl-base"
  mkdir -p "$base/base/1.0"
  printf 'package android.hidl.base@1.0;\n\ninterface IBase {\n};\n' >"$base/base/1.0/IBase.hal"
  hidl-gen -L hash -R -p "$root" -r "android.hidl:$base" android.hidl.base@1.0 \
    >"$base/current.txt" || return 1
  hidl-gen -L check -R -p "$root" -r "vendor.velora.hardware.tidewatch:$root/interfaces/hidl" \
    -r "android.hidl:$base" vendor.velora.hardware.tidewatch@1.0
}

check_bpfmt() {
  local files unformatted
  files=$(find . -name Android.bp -not -path './build*' -not -path './.git/*' | sort)
  [ -n "$files" ] || {
    echo "no Android.bp found"
    return 1
  }
  # bpfmt -l exits 0 whether or not a file would change: what it prints is the verdict.
  unformatted=$(echo "$files" | xargs bpfmt -l) || return 1
  [ -z "$unformatted" ] || {
    echo "not formatted (run bpfmt -w):"
    echo "$unformatted"
    return 1
  }
}

check_aarch64() {
  local dir=${TIDEWATCH_AARCH64_BUILD_DIR:-build-aarch64} exe real
  # Release at -O2 keeps the build cheap; discovery at test time spares the build the emulator.
  cmake -S . -B "$dir" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/aarch64-linux-gnu.cmake" \
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS_RELEASE=-O2 -DTIDEWATCH_BUILD_BENCH=OFF \
    -DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST >/dev/null || return 1
  cmake --build "$dir" -j2 2>&1 | grep -v -E '^\[ *[0-9]+%\]'
  [ "${PIPESTATUS[0]}" -eq 0 ] || return 1
  # Tests start the tool and the emulator by path. The host kernel cannot run AArch64 programs by
  # itself, so each is replaced by a script that runs it under the emulator, as ctest runs the
  # tests. A fresh link puts the binary back in place; it is then moved aside again.
  for exe in tide_watch_ctrl tidewatch_hal_emulator; do
    real="$dir/bin/.$exe.aarch64"
    [ -f "$dir/bin/$exe" ] || continue
    if head -c 4 "$dir/bin/$exe" | grep -q 'ELF'; then
      mv "$dir/bin/$exe" "$real"
      cat >"$dir/bin/$exe" <<EOF
#!/bin/sh
exec qemu-aarch64 -L /usr/aarch64-linux-gnu -E LD_LIBRARY_PATH=/usr/aarch64-linux-gnu/lib \\
  "\$(dirname "\$0")/.$exe.aarch64" "\$@"
EOF
      chmod +x "$dir/bin/$exe"
    fi
  done
  # The capture tool's end-to-end suites time live captures, pipes and restarts of the emulator;
  # under user-mode emulation every program runs many times slower and those bounds mean nothing.
  # The host stages run them; here its units run.
  (cd "$dir" && ctest --output-on-failure -j2 --timeout 300 \
    -E '^(Capture|CaptureFile|CaptureReplay|CaptureReport|Extcap)Test\.')
}

echo "== device checks"
for name in "${@:-aidl hidl bpfmt aarch64}"; do
  for one in $name; do
    case $one in
      aidl | hidl | bpfmt | aarch64) check "$one" "check_$one" ;;
      *)
        echo "FAIL $one: no such check"
        failed=$((failed + 1))
        ;;
    esac
  done
done
echo "device-checks: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
