#!/usr/bin/env bash
# Writes a seed corpus for every fuzz target into OUT/<target>/, cut from
# the conformance vectors: a few frames or packets per input, in the layout
# the target reads (its selector bytes first).
# usage: fuzz/make_corpus.sh VECTORS_DIR OUT_DIR
set -euo pipefail
vec=$1
out=$2
seeds=${QUILLON_CORPUS_SEEDS:-6}  # inputs per vector file

byte() { printf "\\$(printf %03o "$1")"; }
bytes() { local b; for b in "$@"; do byte "$b"; done; }
le16() { byte $(($1 & 255)); byte $((($1 >> 8) & 255)); }
le32() { le16 $(($1 & 65535)); le16 $((($1 >> 16) & 65535)); }
piece() { dd if="$1" iflag=skip_bytes,count_bytes skip="$2" count="$3" bs=4096 status=none; }  # FILE OFFSET BYTES
fsize() { wc -c <"$1" | tr -d ' '; }

# spread TARGET FILE UNIT COUNT [SELECTOR...]: inputs of COUNT units of UNIT
# bytes taken across FILE, each after the selector bytes.
spread() {
  local t=$1 f=$2 unit=$3 count=$4 k
  shift 4
  [ -f "$f" ] || return 0
  local units=$(($(fsize "$f") / unit))
  ((units >= count)) || return 0
  mkdir -p "$out/$t"
  for ((k = 0; k < seeds; k++)); do
    local sel="$*"
    { bytes "$@"; piece "$f" $(((units - count) * k / seeds * unit)) $((unit * count)); } \
      >"$out/$t/$(basename "$f").$k${sel:+.${sel// /-}}"
  done
}

# Offsets and lengths of the first (60 or $2) packets of a stream of packets with
# 16-bit little-endian length prefixes, one "offset length" per line.
packets() {
  local f=$1 off=0 n=0 total lo hi
  total=$(fsize "$f")
  while ((off + 2 <= total && n < ${2:-60})); do
    read -r lo hi < <(od -An -tu1 -j "$off" -N2 "$f")
    echo "$off $((lo | hi << 8))"
    off=$((off + 2 + (lo | hi << 8)))
    n=$((n + 1))
  done
}

# prefixed TARGET FILE COUNT STRIP [SELECTOR...]: inputs of COUNT packets,
# with their prefixes (STRIP 0) or without (STRIP 1).
prefixed() {
  local t=$1 f=$2 count=$3 strip=$4 k i
  shift 4
  [ -f "$f" ] || return 0
  local -a offs lens
  while read -r o l; do offs+=("$o"); lens+=("$l"); done < <(packets "$f")
  local n=${#offs[@]}
  ((n > count)) || return 0
  mkdir -p "$out/$t"
  for ((k = 0; k < seeds; k++)); do
    local first=$(((n - count) * k / seeds))
    {
      bytes "$@"
      for ((i = first; i < first + count; i++)); do
        if ((strip)); then piece "$f" $((offs[i] + 2)) "${lens[i]}"; else piece "$f" "${offs[i]}" $((lens[i] + 2)); fi
      done
    } >"$out/$t/$(basename "$f").$k"
  done
}

# chunked TARGET FILE BYTES STEP [SELECTOR...]: BYTES bytes from the middle
# of FILE in steps of STEP bytes, each step led by its length byte.
chunked() {
  local t=$1 f=$2 total=$3 step=$4 at
  shift 4
  [ -f "$f" ] || return 0
  local start=$(($(fsize "$f") / 2))
  mkdir -p "$out/$t"
  {
    bytes "$@"
    for ((at = 0; at < total; at += step)); do byte "$step"; piece "$f" $((start + at)) "$step"; done
  } >"$out/$t/$(basename "$f").$step.$*"
}

# wave NAME TAG CHANNELS RATE BITS ALIGN FILE BYTES [EXTRA]: a RIFF/WAVE file
# holding BYTES bytes of FILE; EXTRA: list (a LIST chunk first), fact, odd
# (an odd-sized chunk with its pad byte), ext (WAVE_FORMAT_EXTENSIBLE),
# rf64 (RF64 with its ds64 chunk), streamed (lengths left at 0xFFFFFFFF).
wave() {
  local name=$1 tag=$2 ch=$3 rate=$4 bits=$5 align=$6 f=$7 n=$8 extra=${9:-}
  [ -f "$f" ] || return 0
  local fmt=16
  [ "$extra" = ext ] && fmt=40
  local riff=$((4 + 8 + fmt + 8 + n + (n & 1)))
  case $extra in list) riff=$((riff + 12)) ;; fact) riff=$((riff + 12)) ;; odd) riff=$((riff + 14)) ;; esac
  local data=$n
  mkdir -p "$out/fuzz_wav"
  {
    if [ "$extra" = rf64 ]; then
      printf RF64; le32 4294967295; printf WAVE
      printf ds64; le32 28; le32 $((riff + 36)); le32 0; le32 "$n"; le32 0; le32 $((n / align)); le32 0; le32 0
      data=4294967295
    elif [ "$extra" = streamed ]; then
      printf RIFF; le32 4294967295; printf WAVE
      data=4294967295
    else
      printf RIFF; le32 "$riff"; printf WAVE
    fi
    [ "$extra" = list ] && { printf LIST; le32 4; printf INFO; }
    printf 'fmt '; le32 "$fmt"
    if [ "$extra" = ext ]; then le16 65534; else le16 "$tag"; fi
    le16 "$ch"; le32 "$rate"; le32 $((rate * align)); le16 "$align"; le16 "$bits"
    [ "$extra" = ext ] && { le16 22; le16 "$bits"; le32 4; le16 "$tag"; bytes 0 0 0 0 16 0 128 0 0 170 0 56 155 113; }
    [ "$extra" = fact ] && { printf fact; le32 4; le32 $((n * 8 / bits)); }
    [ "$extra" = odd ] && { printf junk; le32 5; bytes 1 2 3 4 5 0; }
    printf data; le32 "$data"; piece "$f" 4000 "$n"
    ((n & 1)) && byte 0
    true
  } >"$out/fuzz_wav/$name${extra:+-$extra}.wav"
}

mkdir -p "$out"

# --- codec engines and adapters ------------------------------------------
for f in "$vec"/amrwb/*.amrwb "$vec"/amrwb-3gpp/*.amrwb; do prefixed fuzz_amrwb "$f" 3 1; done
for f in "$vec"/amrwb/orig16k-mode*.pcm; do spread fuzz_amrwb_encoder "$f" 640 2 $((RANDOM & 255)); done
for f in "$vec"/g722/*.g722; do spread fuzz_g722 "$f" 80 2 80; done
for f in "$vec"/g726/*; do
  case $f in
    *-40-msb) sel=0 ;; *-32-msb) sel=1 ;; *-24-msb) sel=2 ;; *-16-msb) sel=3 ;;
    *-40-lsb) sel=4 ;; *-32-lsb) sel=5 ;; *-24-lsb) sel=6 ;; *-16-lsb) sel=7 ;; *) continue ;;
  esac
  spread fuzz_g726 "$f" 15 8 "$sel"
done
for f in "$vec"/g729a/*.g729 "$vec"/g729/*.g729; do spread fuzz_g729a "$f" 10 4 0; done
for f in "$vec"/g729-itu/*.g729 "$vec"/g729/*.g729; do
  [ -f "$f" ] || continue
  # Speech records for a decoder variant (selector 0-2): a kind byte (0)
  # before each 10-byte frame; packets for descriptor 24, 26, 27 (3-5).
  units=$(($(fsize "$f") / 10))
  ((units >= 3)) || continue
  mkdir -p "$out/fuzz_g729b"
  for ((k = 0; k < seeds; k++)); do
    at=$(((units - 3) * k / seeds * 10))
    { byte $((k % 3)); for i in 0 10 20; do byte 0; piece "$f" $((at + i)) 10; done; } >"$out/fuzz_g729b/$(basename "$f").$k"
    { byte $((3 + k % 3)); byte 20; piece "$f" "$at" 20; byte 10; piece "$f" $((at + 20)) 10; } \
      >"$out/fuzz_g729b/$(basename "$f").packets.$k"
  done
done
for f in "$vec"/g729/*.s16; do for sel in 6 7 8; do spread fuzz_g729b "$f" 160 1 "$sel"; done; done
for f in "$vec"/tetra/*.tet; do spread fuzz_tetra "$f" 18 3 1; done
for f in "$vec"/silk/*.silk; do prefixed fuzz_silk "$f" 3 0; done
for f in "$vec"/opus/*.opus; do prefixed fuzz_opus "$f" 3 0; done
for f in "$vec"/g711/*.alaw "$vec"/g711/*.ulaw; do spread fuzz_waveform "$f" 160 2 $((RANDOM % 25)); done
for f in "$vec"/g729/*.s16; do spread fuzz_msadpcm "$f" 505 2 $((RANDOM & 255)); done
for f in "$vec"/g722/*.g722; do chunked fuzz_codeclib "$f" 320 37 9; done   # G.722 mode 1 decoder
for f in "$vec"/g729a/*.g729; do chunked fuzz_codeclib "$f" 60 7 3; done    # G.729 Annex A decoder

# The C interface: selector = index of the code in the target's list.
capi() { chunked fuzz_capi "$1" "$2" "$3" "$4" 0; }
for f in "$vec"/g711/hts12-a.alaw; do capi "$f" 400 100 0; done
for f in "$vec"/g711/hts12-u.ulaw; do capi "$f" 400 100 1; done
for f in "$vec"/g726/hts12-32.g726-32-msb; do capi "$f" 200 33 3; done
for f in "$vec"/g726/hts12-16.g726-16-lsb; do capi "$f" 200 50 9; done
for f in "$vec"/g729/hts12.g729 "$vec"/g729a/ALGTHM.g729; do capi "$f" 60 7 10; capi "$f" 60 20 10; done
for f in "$vec"/tetra/tetra_hts1a.tet; do capi "$f" 54 18 12; capi "$f" 54 25 12; done
for f in "$vec"/g722/orig16k-m1.g722; do capi "$f" 480 160 13; capi "$f" 480 99 13; done

# The adapters: selector = index of the code in the target's list.
adapter() { chunked fuzz_adapters "$1" "$2" "$3" "$4"; }
for f in "$vec"/g711/hts12-a.alaw; do adapter "$f" 300 61 0; done
for f in "$vec"/g726/hts12-40.g726-40-msb; do adapter "$f" 100 13 2; done
for f in "$vec"/tetra/tetra_hts1a.tet; do adapter "$f" 54 25 9; done
for f in "$vec"/g729/hts12.g729; do adapter "$f" 60 7 11; done
for f in "$vec"/g722/orig16k-m1.g722; do adapter "$f" 320 77 12; done
prefix_stream() {  # first packets of a prefixed stream, in odd steps
  local f=$1 sel=$2 step=$3 n
  [ -f "$f" ] || return 0
  n=$(packets "$f" 4 | sed -n 4p | cut -d' ' -f1)
  mkdir -p "$out/fuzz_adapters"
  { byte "$sel"; for ((at = 0; at < n; at += step)); do byte "$step"; piece "$f" "$at" "$step"; done; } \
    >"$out/fuzz_adapters/$(basename "$f").$step"
}
for f in "$vec"/silk/o01_*.silk; do prefix_stream "$f" 14 29; done
for f in "$vec"/opus/orig16k-voip-16k-20ms.opus; do prefix_stream "$f" 16 31; done
for f in "$vec"/amrwb/orig16k-mode2.amrwb; do prefix_stream "$f" 17 11; done

# --- the tool's readers ------------------------------------------------------
wave pcm16 1 1 8000 16 2 "$vec/g729/hts12.s16" 640
wave pcm16 1 1 8000 16 2 "$vec/g729/hts12.s16" 640 list
wave pcm16 1 1 8000 16 2 "$vec/g729/hts12.s16" 640 ext
wave pcm16k 1 1 16000 16 2 "$vec/amrwb/orig16k-mode0.pcm" 640 odd
wave pcm16k 1 1 16000 16 2 "$vec/amrwb/orig16k-mode0.pcm" 640 rf64
wave alaw 6 1 8000 8 1 "$vec/g711/hts12-a.alaw" 320 streamed
wave pcm8 1 1 8000 8 1 "$vec/g711/hts12-a.alaw" 321
wave alaw 6 1 8000 8 1 "$vec/g711/hts12-a.alaw" 320 fact
wave ulaw 7 1 8000 8 1 "$vec/g711/hts12-u.ulaw" 320
wave g726 69 1 8000 4 1 "$vec/g726/hts12-32.g726-32-msb" 160
wave g726 100 1 8000 2 1 "$vec/g726/hts12-16.g726-16-msb" 80 fact
wave g729 131 1 8000 1 10 "$vec/g729/hts12.g729" 40
wave msadpcm 2 1 8000 4 256 "$vec/g729/hts12.s16" 256 fact
mkdir -p "$out/fuzz_containers"
cp "$out"/fuzz_wav/* "$out/fuzz_containers/"
for f in "$vec"/amrwb/orig16k-mode[0-8].amrwb "$vec"/amrwb/orig16k-gaps-dtx-mode2.amrwb; do
  [ -f "$f" ] || continue
  { printf '#!AMR-WB\n'; packets "$f" 4 | while read -r o l; do piece "$f" $((o + 2)) "$l"; done; } \
    >"$out/fuzz_containers/$(basename "$f").storage"
done
for f in "$vec"/silk/o0*.silk; do
  [ -f "$f" ] || continue
  { printf "#!SILK_V3"; n=$(packets "$f" 4 | sed -n 4p | cut -d" " -f1); piece "$f" 0 "$n"; } \
    >"$out/fuzz_containers/$(basename "$f").v3"
done

# --- text ---------------------------------------------------------------------
mkdir -p "$out/fuzz_charset"
k=0
for text in 'Call from Zoë Ångström, 12:04' 'Grüße aus Köln' 'Łódź, Kraków' 'Нет ответа' 'مكالمة' '通话记录 测试' 'plain ASCII 123'; do
  for sel in 0 10 20 40 70; do
    { byte "$sel"; byte $((k % 4)); printf '%s' "$text"; } >"$out/fuzz_charset/text.$k"
    k=$((k + 1))
  done
done
