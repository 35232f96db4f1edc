#!/bin/sh
# Installs the Debian 12 packages that building and testing quillon needs,
# skipping those already present. Run as root or with sudo available.
set -eu
# Build and test; unicode-data for the character-set filter check.
packages="build-essential cmake ninja-build pkg-config libopus-dev libgtest-dev libbenchmark-dev clang libclang-rt-14-dev
  unicode-data"
# Packet capture, the Python module and its tests.
packages="$packages libpcap-dev pybind11-dev python3-dev python3-numpy python3-distributed python3-pytest"
# ffmpeg: the capture test sends RTP with it over loopback (skipped without
# it), and it, sox and opus-tools make test inputs; text2pcap
# (wireshark-common) writes a capture for the capture tests; the peer
# libraries and valgrind are for bench/.
packages="$packages ffmpeg sox opus-tools wireshark-common libspandsp-dev libbcg729-dev libopencore-amrwb-dev libvo-amrwbenc-dev
  libavcodec-dev libavutil-dev valgrind"
# One query for all of them: a package dpkg does not know is missing too.
installed=" $(dpkg-query -W -f='${Status} ${Package}\n' $packages 2>/dev/null | sed -n 's/^install ok installed //p' | tr '\n' ' ')"
missing=""
for p in $packages; do
  case "$installed" in *" $p "*) ;; *) missing="$missing $p" ;; esac
done
[ -z "$missing" ] && exit 0
as_root=""
[ "$(id -u)" -eq 0 ] || as_root="sudo"
echo "installing:$missing"
$as_root apt-get update -qq
DEBIAN_FRONTEND=noninteractive $as_root apt-get install -y -qq $missing
