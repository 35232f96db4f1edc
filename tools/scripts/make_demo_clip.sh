#!/bin/sh
# Re-creates tools/data/demo_clip_16k.raw, the speech clip built into
# `quillon demo`: synthetic speech from espeak-ng, 16 kHz, 16-bit
# little-endian mono, no header. Needs Debian's espeak-ng and sox.
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
espeak-ng -v en-us -s 150 -w "$tmp/clip.wav" \
  "Please hold the line. Your call is being recorded. \
Seven radio calls came in at nine forty two."
sox "$tmp/clip.wav" -r 16000 -c 1 -b 16 -e signed-integer -L -t raw "$here/data/demo_clip_16k.raw" norm -3
