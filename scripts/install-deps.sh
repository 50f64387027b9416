#!/bin/sh
# Installs every Debian package the renderer needs to build, run and test.
# Idempotent and quiet: packages already present are not touched.
set -e
PKGS="cmake g++ pkg-config qtbase5-dev libglew-dev libopenexr-dev libimath-dev libjpeg-dev \
libboost-dev dcraw libjpeg-turbo-progs xvfb xauth libgtest-dev openexr time \
slurm-wlm munge"
missing=""
for p in $PKGS; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || missing="$missing $p"
done
[ -z "$missing" ] && exit 0
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq >/dev/null
$SUDO apt-get install -y -qq --no-install-recommends $missing >/dev/null
