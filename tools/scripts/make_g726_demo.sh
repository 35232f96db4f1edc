#!/bin/sh
# Makes G.726 demo streams from any audio file ffmpeg can read.
# tools/data/streams/g726-*.raw, built into `quillon demo`, were made with it from
# the demo clip at 8 kHz (source-8k.wav written by `quillon demo`), with
# libspandsp-dev installed, renamed to the tool's codec names.
#
#   make_g726_demo.sh input.wav outdir
#
# Writes outdir/demo-RR.g726-RR-msb (compression codes 3-6: first codeword
# in the most significant bits) and outdir/demo-RR.g726-RR-lsb (codes
# 13-16: first codeword in the least significant bits) for RR = 16, 24, 32
# and, when libspandsp-dev is installed, 40 kbit/s.
#
# 16/24/32 kbit/s come from ffmpeg's encoders: "g726" packs big-endian
# (codes 4, 5, 6), "g726le" little-endian (codes 14, 15, 16). ffmpeg's
# 40 kbit/s mode is not interoperable with the ITU-T algorithm (ffmpeg 5.1
# decodes ITU-conformant 40 kbit/s streams at about 2 dB SNR and vice
# versa), so 40 kbit/s (codes 3 and 13) is made with spandsp's encoder, and
# spandsp is used for every rate when available.
set -eu
in=$1
out=$2
mkdir -p "$out"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

ffmpeg -v error -y -i "$in" -ar 8000 -ac 1 -f s16le "$tmp/in.pcm"

if [ -f /usr/include/spandsp/g726.h ] && command -v cc >/dev/null; then
  cat > "$tmp/enc.c" <<'CEOF'
#include <stdio.h>
#include <stdlib.h>
#include <tiffio.h>
#include <spandsp.h>
/* enc RATE PACKING(left|right) < pcm > stream */
int main(int argc, char **argv) {
  int rate = atoi(argv[1]) * 1000;
  int packing = argv[2][0] == 'l' ? G726_PACKING_LEFT : G726_PACKING_RIGHT;
  g726_state_t *s = g726_init(NULL, rate, G726_ENCODING_LINEAR, packing);
  int16_t pcm[800];
  uint8_t code[800];
  size_t n;
  while ((n = fread(pcm, 2, 800, stdin)) > 0) {
    if (n < 800) { while (n % 8) pcm[n++] = 0; }  /* whole groups */
    fwrite(code, 1, (size_t) g726_encode(s, code, pcm, (int) n), stdout);
  }
  g726_free(s);
  return 0;
}
CEOF
  cc -O2 -o "$tmp/enc" "$tmp/enc.c" -lspandsp
  for r in 16 24 32 40; do
    "$tmp/enc" $r left < "$tmp/in.pcm" > "$out/demo-$r.g726-$r-msb"
    "$tmp/enc" $r right < "$tmp/in.pcm" > "$out/demo-$r.g726-$r-lsb"
  done
else
  echo "libspandsp-dev not installed: 40 kbit/s skipped, ffmpeg used for 16/24/32" >&2
  for r in 16 24 32; do
    ffmpeg -v error -y -f s16le -ar 8000 -ac 1 -i "$tmp/in.pcm" -c:a g726 -b:a ${r}k -f g726 "$out/demo-$r.g726-$r-msb"
    ffmpeg -v error -y -f s16le -ar 8000 -ac 1 -i "$tmp/in.pcm" -c:a g726le -b:a ${r}k -f g726le "$out/demo-$r.g726-$r-lsb"
  done
fi
