#!/bin/sh
# Installs the build into a temporary prefix, then builds a C program against
# the static library with nothing but what `pkg-config --static` prints, links
# it with -static and runs it.
# Usage: pkgconfig_static_link.sh BUILD_DIR [C_COMPILER]
set -eu
build=$1
cc=${2:-cc}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
pc=$(find "$work/prefix" -name quillon.pc)
[ -n "$pc" ] || { echo "quillon.pc was not installed"; exit 1; }
PKG_CONFIG_PATH=$(dirname "$pc")
export PKG_CONFIG_PATH
cat >"$work/main.c" <<'PROGRAM'
#include <quillon/quillon_c.h>
#include <stdio.h>

int main(void) {
  /* Two A-law codes through the C interface: 0xD5 is +8, 0x2A is -32256. */
  const uint8_t in[2] = {0xD5, 0x2A};
  uint8_t out[4] = {0};
  quillon_decoder_handle h = decoder_create(1);
  if (!h || !decoder_open(h, 100)) return 1;
  const unsigned int n = decode_decode(h, in, out, 2);
  decoder_close(h);
  decoder_release(h);
  const int first = (int16_t)(out[0] | out[1] << 8), second = (int16_t)(out[2] | out[3] << 8);
  printf("%u bytes: %d %d\n", n, first, second);
  return n == 4 && first == 8 && second == -32256 ? 0 : 1;
}
PROGRAM
flags=$(pkg-config --static --cflags --libs quillon)
echo "$cc -static main.c $flags"
# shellcheck disable=SC2086
"$cc" -static -o "$work/main" "$work/main.c" $flags
"$work/main"
