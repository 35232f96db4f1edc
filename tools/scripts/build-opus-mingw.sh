#!/usr/bin/env bash
# Builds libopus for 32-bit Windows (i686-w64-mingw32) from Debian's `opus`
# source package and installs it, static only, where the Windows build of
# quillon looks for it:
#
#   tools/scripts/build-opus-mingw.sh [PREFIX]
#
# PREFIX defaults to build-deps/i686-w64-mingw32 in the source tree. The
# sources are unpacked under build-deps/src (ignored by git, like PREFIX);
# nothing fetched is committed. Needs the MinGW-w64 cross compilers, make
# and apt-get source (dpkg-dev plus a deb-src entry); build-windows.sh
# installs all of that before calling this script.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
prefix=${1:-$root/build-deps/i686-w64-mingw32}
work=$root/build-deps/src
jobs=${QUILLON_JOBS:-2}

if [ -f "$prefix/lib/libopus.a" ] && [ -f "$prefix/lib/pkgconfig/opus.pc" ]; then
  echo "libopus for the target already in $prefix"
  exit 0
fi

# Unpack the source package once (the patched Debian tree: opus-<version>/).
mkdir -p "$work"
source_dir=$(find "$work" -maxdepth 1 -type d -name 'opus-[0-9]*' | sort | tail -n 1)
if [ -z "$source_dir" ]; then
  (cd "$work" && apt-get source opus)
  source_dir=$(find "$work" -maxdepth 1 -type d -name 'opus-[0-9]*' | sort | tail -n 1)
fi
[ -n "$source_dir" ] || { echo "apt-get source opus gave no source tree" >&2; exit 1; }
echo "building $(basename "$source_dir") for i686-w64-mingw32 into $prefix"

# The package's own autotools build (its CMake files are incomplete in this
# release). The stack protector and _FORTIFY_SOURCE (which configure adds
# unless the macro is already defined) would need MinGW's libssp at link
# time; the documentation and the extra programs are not needed.
build=$work/opus-build
rm -rf "$build" && mkdir -p "$build"
(cd "$build" && "$source_dir/configure" --host=i686-w64-mingw32 --prefix="$prefix" \
   CC=i686-w64-mingw32-gcc-posix AR=i686-w64-mingw32-gcc-ar-posix RANLIB=i686-w64-mingw32-gcc-ranlib-posix \
   CFLAGS="-O2" CPPFLAGS="-D_FORTIFY_SOURCE=0" --enable-static --disable-shared --disable-stack-protector \
   --disable-doc --disable-extra-programs --disable-maintainer-mode)
make -C "$build" -j"$jobs"
make -C "$build" install
echo "libopus installed: $prefix/lib/libopus.a"
