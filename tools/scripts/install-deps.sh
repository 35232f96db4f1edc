#!/bin/sh
# Installs the Debian 12 packages that building and testing quillon needs,
# skipping those already present. Run as root or with sudo available.
set -eu
packages="build-essential cmake pkg-config libopus-dev libgtest-dev libbenchmark-dev clang libclang-rt-14-dev"
# ffmpeg: the capture test sends RTP with it over loopback (skipped without it).
packages="$packages ffmpeg"
missing=""
for p in $packages; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
[ -z "$missing" ] && exit 0
as_root=""
[ "$(id -u)" -eq 0 ] || as_root="sudo"
echo "installing:$missing"
$as_root apt-get update -qq
DEBIAN_FRONTEND=noninteractive $as_root apt-get install -y -qq $missing
