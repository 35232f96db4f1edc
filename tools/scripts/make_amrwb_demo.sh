#!/bin/sh
# Makes the AMR-WB demo stream built into `quillon demo`
# (tools/data/streams/amrwb.raw) from the demo clip with Debian's
# libvo-amrwbenc encoder: mode 2 (12.65 kbit/s) with DTX, each frame in the
# RFC 4867 storage layout preceded by its 16-bit little-endian length, as
# code 65 reads it.
#
#   make_amrwb_demo.sh [clip.raw] [out.raw]
#
# clip.raw is 16 kHz 16-bit little-endian mono (default: the demo clip).
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
in=${1:-$here/data/demo_clip_16k.raw}
out=${2:-$here/data/streams/amrwb.raw}
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
cat > "$tmp/enc.c" <<'CEOF'
#include <stdio.h>
#include <string.h>
#include <vo-amrwbenc/enc_if.h>
/* enc MODE DTX < pcm > stream */
int main(int argc, char **argv) {
  int mode = argv[1][0] - '0', dtx = argv[2][0] - '0';
  void *s = E_IF_init();
  short pcm[320];
  unsigned char frame[64];
  size_t n;
  while ((n = fread(pcm, 2, 320, stdin)) > 0) {
    if (n < 320) memset(pcm + n, 0, (320 - n) * 2);
    int bytes = E_IF_encode(s, mode, pcm, frame, dtx);
    unsigned char prefix[2] = {(unsigned char)bytes, (unsigned char)(bytes >> 8)};
    fwrite(prefix, 1, 2, stdout);
    fwrite(frame, 1, (size_t)bytes, stdout);
  }
  E_IF_exit(s);
  return 0;
}
CEOF
cc -O2 -o "$tmp/enc" "$tmp/enc.c" -lvo-amrwbenc
mkdir -p "$(dirname "$out")"
"$tmp/enc" 2 1 < "$in" > "$out"
