#!/bin/sh
# Installs every Debian package the renderer needs to build, run and test.
# Idempotent and quiet: packages already present are not touched. Then the
# pinned npm packages of the browser test (tests/web/package-lock.json) go
# into tests/web/node_modules; no browser is downloaded (the test drives
# Debian's chromium).
set -e
PKGS="cmake g++ pkg-config qtbase5-dev libglew-dev libopenexr-dev libimath-dev libjpeg-dev \
libpng-dev libtiff-dev libboost-dev dcraw libjpeg-turbo-progs xvfb xauth libgtest-dev openexr time \
slurm-wlm munge chromium libimage-exiftool-perl mmdebstrap dpkg-dev gpg buildah podman runc \
libwebp-dev webp"
command -v npm >/dev/null 2>&1 || PKGS="$PKGS nodejs npm"
missing=""
for p in $PKGS; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || missing="$missing $p"
done
if [ -n "$missing" ]; then
    SUDO=""
    [ "$(id -u)" -ne 0 ] && SUDO="sudo"
    export DEBIAN_FRONTEND=noninteractive
    $SUDO apt-get update -qq >/dev/null
    $SUDO apt-get install -y -qq --no-install-recommends $missing >/dev/null
fi
web="$(dirname "$0")/../tests/web"
if [ ! -d "$web/node_modules" ] || [ "$web/package-lock.json" -nt "$web/node_modules" ]; then
    PUPPETEER_SKIP_DOWNLOAD=1 npm ci --prefix "$web" --no-audit --no-fund --loglevel=error >/dev/null
    touch "$web/node_modules"
fi
