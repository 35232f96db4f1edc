#!/usr/bin/env bash
# Builds quillon.dll (32-bit Windows, i686) with Debian's MinGW-w64 cross
# toolchain, installing whatever is missing first (Debian 12; run as root or
# with sudo available):
#
#   tools/scripts/build-windows.sh [--test] [BUILD_DIR]
#
# BUILD_DIR defaults to build-win32. The result is BUILD_DIR/quillon.dll with
# its import library BUILD_DIR/quillon.lib; the script ends by checking the
# DLL's export table. Steps:
#   1. packages: the i686 MinGW-w64 compilers (posix-threads variant),
#      cmake, make, pkg-config and dpkg-dev; with --test also googletest
#      (sources in /usr/src/googletest) and Wine (wine, wine32: the i386
#      architecture is added for them). A deb-src entry is added when apt has
#      none, for `apt-get source opus`.
#   2. libopus for the target, from Debian's opus source package
#      (tools/scripts/build-opus-mingw.sh), into build-deps/i686-w64-mingw32.
#   3. with --test: GoogleTest for the target from /usr/src/googletest.
#   4. cmake with cmake/toolchain-i686-w64-mingw32.cmake, then the build.
#   5. with --test: ctest under Wine, in a private WINEPREFIX
#      (BUILD_DIR/wineprefix) with a warmed wineserver, every test bounded
#      by --timeout.
# Nothing downloaded goes into the source tree outside build-deps/ and
# BUILD_DIR, both ignored by git.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
run_tests=0
build=""
for arg in "$@"; do
  case "$arg" in
    --test) run_tests=1 ;;
    -h|--help) sed -n '2,26p' "$0"; exit 0 ;;
    *) build=$arg ;;
  esac
done
build=${build:-$root/build-win32}
case "$build" in /*) ;; *) build=$PWD/$build ;; esac
prefix=$root/build-deps/i686-w64-mingw32
toolchain=$root/cmake/toolchain-i686-w64-mingw32.cmake
jobs=${QUILLON_JOBS:-2}
export QUILLON_JOBS=$jobs
start=$(date +%s)
as_root=""
[ "$(id -u)" -eq 0 ] || as_root="sudo"

installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }

# apt-get install, retried once preferring the main archive when the
# security suite's i386 index lags behind its amd64 one (multiarch packages
# must have the same version on both architectures).
apt_install() {
  if ! DEBIAN_FRONTEND=noninteractive $as_root apt-get install -y -qq --no-install-recommends "$@"; then
    local pin
    pin=$(mktemp)
    printf 'Package: *\nPin: release l=Debian-Security\nPin-Priority: 100\n' > "$pin"
    echo "retrying with the security suite at low priority"
    DEBIAN_FRONTEND=noninteractive $as_root apt-get install -y -qq --no-install-recommends \
      -o Dir::Etc::Preferences="$pin" "$@"
    rm -f "$pin"
  fi
}

echo "== 1. packages =="
packages="g++-mingw-w64-i686-posix gcc-mingw-w64-i686-posix binutils-mingw-w64-i686 mingw-w64-i686-dev
  cmake make pkg-config dpkg-dev"
[ "$run_tests" -eq 1 ] && packages="$packages googletest"
missing=""
for p in $packages; do installed "$p" || missing="$missing $p"; done
need_wine=0
if [ "$run_tests" -eq 1 ] && ! { installed wine && installed wine32:i386; }; then need_wine=1; fi
need_src=0
if ! grep -rqs '^Types:.*deb-src\|^deb-src' /etc/apt/sources.list /etc/apt/sources.list.d/; then need_src=1; fi
if [ ! -d "$root/build-deps/src" ] || [ -z "$(find "$root/build-deps/src" -maxdepth 1 -name 'opus-[0-9]*')" ]; then
  need_opus_source=1
else
  need_opus_source=0
fi
if [ "$need_src" -eq 1 ] && [ "$need_opus_source" -eq 1 ]; then
  echo "adding a deb-src entry for apt-get source"
  . /etc/os-release
  printf 'Types: deb-src\nURIs: http://deb.debian.org/debian\nSuites: %s %s-updates\nComponents: main\nSigned-By: /usr/share/keyrings/debian-archive-keyring.gpg\n' \
    "$VERSION_CODENAME" "$VERSION_CODENAME" | $as_root tee /etc/apt/sources.list.d/quillon-deb-src.sources >/dev/null
fi
if [ "$need_wine" -eq 1 ] && ! dpkg --print-foreign-architectures | grep -qx i386; then
  echo "adding the i386 architecture for wine32"
  $as_root dpkg --add-architecture i386
fi
if [ -n "$missing" ] || [ "$need_wine" -eq 1 ] || { [ "$need_src" -eq 1 ] && [ "$need_opus_source" -eq 1 ]; }; then
  # A partly failing index download (a mirror in sync) is not fatal here.
  $as_root apt-get update -qq || echo "apt-get update reported errors; continuing"
fi
if [ -n "$missing" ]; then
  echo "installing:$missing"
  apt_install $missing
fi
if [ "$need_wine" -eq 1 ]; then
  echo "installing: wine wine32"
  apt_install wine wine32
fi

echo "== 2. libopus for the target =="
"$root/tools/scripts/build-opus-mingw.sh" "$prefix"

tests=OFF
if [ "$run_tests" -eq 1 ]; then
  tests=ON
  echo "== 3. GoogleTest for the target =="
  if [ -f "$prefix/lib/libgtest.a" ]; then
    echo "GoogleTest for the target already in $prefix"
  else
    cmake -S /usr/src/googletest -B "$root/build-deps/src/googletest-build" \
      -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DQUILLON_MINGW_PREFIX="$prefix" \
      -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$prefix" -DBUILD_GMOCK=OFF -DINSTALL_GTEST=ON
    cmake --build "$root/build-deps/src/googletest-build" -j"$jobs"
    cmake --install "$root/build-deps/src/googletest-build"
  fi
fi

echo "== 4. quillon.dll =="
cmake -S "$root" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DQUILLON_MINGW_PREFIX="$prefix" \
  -DCMAKE_BUILD_TYPE=Release -DQUILLON_BUILD_TESTS=$tests -DQUILLON_BUILD_BENCH=OFF -DQUILLON_BUILD_FUZZ=OFF
cmake --build "$build" -j"$jobs"
cmake -DOBJDUMP=i686-w64-mingw32-objdump -DDLL="$build/quillon.dll" \
  -DEXPECTED="$root/tests/windows/expected_exports.txt" -P "$root/tests/windows/check_exports.cmake"
echo "built $build/quillon.dll and $build/quillon.lib in $(( $(date +%s) - start )) s"

if [ "$run_tests" -eq 1 ]; then
  echo "== 5. tests under Wine =="
  export WINEPREFIX="$build/wineprefix" WINEARCH=win32 WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
  t0=$(date +%s)
  mkdir -p "$WINEPREFIX"
  # One server for all test programs, staying up 2 minutes after the last.
  wineserver -k 2>/dev/null || true
  wineserver -p 120
  wineboot --init >/dev/null 2>&1 || true
  echo "Wine prefix ready in $(( $(date +%s) - t0 )) s"
  t0=$(date +%s)
  status=0
  ctest --test-dir "$build" --output-on-failure --timeout 300 || status=$?
  echo "tests under Wine took $(( $(date +%s) - t0 )) s"
  wineserver -k 2>/dev/null || true
  exit $status
fi
