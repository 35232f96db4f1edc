#!/bin/sh
# Installs the built library into a fresh prefix, builds the command-line
# tool from tools/ as a project of its own against it (find_package), and
# checks that the program it makes decodes like the project's own tool.
#   build_tool.sh SOURCE_DIR BUILD_DIR PROJECT_TOOL VECTORS_DIR
set -eu
src=$1 build=$2 tool=$3 vectors=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
launcher=
command -v ccache >/dev/null && launcher="-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache"
generator=
command -v ninja >/dev/null && generator="-G Ninja"
# shellcheck disable=SC2086
cmake -S "$src/tools" -B "$work/build" $generator $launcher -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_PREFIX_PATH="$work/prefix" >"$work/configure.log" 2>&1 || { cat "$work/configure.log"; exit 1; }
cmake --build "$work/build" -j2 >"$work/build.log" 2>&1 || { cat "$work/build.log"; exit 1; }
# Nothing of the library's private headers was reachable.
if grep -R -- "-I$src/src\|-I $src/src" "$work/build" >/dev/null 2>&1; then
  echo "the standalone tool build saw the library's private sources"
  exit 1
fi
built=$work/build/quillon
"$built" codecs >/dev/null
for input in "$vectors/g729/hts12.g729:g729" "$vectors/g722/orig16k-m1.g722:g722"; do
  file=${input%:*} codec=${input##*:}
  [ -f "$file" ] || { echo "missing vector $file"; exit 1; }
  "$tool" decode --codec "$codec" "$file" "$work/a.wav" 2>/dev/null
  "$built" decode --codec "$codec" "$file" "$work/b.wav" 2>/dev/null
  cmp "$work/a.wav" "$work/b.wav"
done
echo "the tool builds against the installed library alone and decodes as the project's tool does"
