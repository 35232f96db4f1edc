#!/bin/sh
# Instructions per second of audio, counted by callgrind, for every row of
# the peer comparison (`quillon_peers list`): quillon's tool (`quillon
# decode --raw` or `quillon encode`) on the row's speech input minus the same
# command on an empty input, and the peer library through `quillon_peers run`
# the same way. Instruction counts do not depend on the machine's load, so
# the figures can be checked anywhere.
#
#   bench/instructions.sh [BUILD_DIR]   (default: build; needs valgrind and
#                                        the shared vectors, ../shared/vectors
#                                        or $QUILLON_VECTORS)
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$here/build}
tool=$build/quillon
peers=$build/bench/peers/quillon_peers
vectors=${QUILLON_VECTORS:-$here/../shared/vectors}
command -v valgrind >/dev/null || { echo "valgrind is not installed"; exit 1; }
for f in "$tool" "$peers"; do
  [ -x "$f" ] || { echo "$f is not built"; exit 1; }
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
: >"$work/empty.raw"

# Instructions executed by a command (its output is discarded).
count() {
  nice valgrind --tool=callgrind --callgrind-out-file=/dev/null "$@" 2>&1 >/dev/null |
    sed -n 's/.*Collected : *//p'
}
# Instructions per second: (full - empty) * rate / samples.
per_second() {
  awk -v a="$1" -v b="$2" -v n="$3" -v r="$4" 'BEGIN { printf "%.3g M", (a - b) * r / n / 1e6 }'
}
bytes() { wc -c <"$1" | tr -d ' '; }
# Little-endian integer $1 in $2 bytes; a mono 16-bit WAVE file at rate $1
# with no samples, written to $2 (the tool refuses an empty raw input).
le() {
  n=$1 i=0
  while [ $i -lt "$2" ]; do printf "\\$(printf %03o $((n & 255)))"; n=$((n >> 8)) i=$((i + 1)); done
}
empty_wav() {
  { printf RIFF; le 36 4; printf 'WAVEfmt '; le 16 4; le 1 2; le 1 2; le "$1" 4; le $(($1 * 2)) 4; le 2 2; le 16 2
    printf data; le 0 4; } >"$2"
}

echo "| row | quillon instructions/s | peer | peer instructions/s | peer / quillon |"
echo "|---|---:|---|---:|---:|"
"$peers" list | while read -r row peer_name input rate; do
  in=$vectors/$input
  [ -f "$in" ] || { echo "| $row | $in not found | | | |"; continue; }
  # The tool's command line for the row; encoders read a WAVE file.
  pcm=pcm16
  [ "$rate" -eq 16000 ] && pcm=pcm16-16k
  case $row in
    amrwb-enc-12.65) args="encode --codec amrwb --mode 2" ;;
    amrwb-enc-23.85) args="encode --codec amrwb --mode 8" ;;
    g729a-enc) args="encode --codec g729" ;;
    msadpcm-enc) args="encode --codec msadpcm" ;;
    amrwb-dec-23.85) args="decode --raw --codec amrwb" ;;
    g729a-dec) args="decode --raw --codec g729" ;;
    g726-32-dec) args="decode --raw --codec g726-32" ;;
    *) echo "| $row | no tool command for this row | | | |"; continue ;;
  esac
  case $args in
    encode*)
      "$tool" decode --codec $pcm "$in" "$work/full.wav" >/dev/null
      empty_wav "$rate" "$work/empty.wav"
      samples=$(($(bytes "$in") / 2))
      full=$(count "$tool" $args "$work/full.wav" "$work/out")
      empty=$(count "$tool" $args "$work/empty.wav" "$work/out")
      ;;
    *)
      full=$(count "$tool" $args "$in" "$work/out")
      samples=$(($(bytes "$work/out") / 2))
      empty=$(count "$tool" $args "$work/empty.raw" "$work/out")
      ;;
  esac
  ours=$(per_second "$full" "$empty" "$samples" "$rate")
  peer=$("$peers" run "$row" "$work/empty.raw" 2>&1 >/dev/null || true)
  if [ -n "$peer" ]; then
    echo "| $row | $ours | $peer_name: $peer | | |"
    continue
  fi
  peer_samples=$("$peers" run "$row" "$in" | sed -n 's/ samples$//p')
  peer_full=$(count "$peers" run "$row" "$in")
  peer_empty=$(count "$peers" run "$row" "$work/empty.raw")
  theirs=$(per_second "$peer_full" "$peer_empty" "$peer_samples" "$rate")
  ratio=$(awk -v a="$theirs" -v b="$ours" 'BEGIN { printf "%.2f", a / b }')
  echo "| $row | $ours | $peer_name | $theirs | $ratio |"
done
