#!/usr/bin/env bash
# Prepares .gpu/ (ignored by git) for scripts/gpu-check.sh on the NVIDIA
# machine: the Release binaries in .gpu/bin, the directory they were built in
# (.gpu/source-dir, compiled into the tests), and .gpu/bundle.tar.xz with the
# libraries, Xvfb and Qt platform files that machine lacks.
#
#   scripts/gpu-bundle.sh [SHARED_GPU_DIR]     (default ../shared/gpu)
#
# The bundle is rebuilt only when it is missing or REBUNDLE=1 is set; new
# binaries alone need no new bundle.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
shared=$(realpath "${1:-$root/../shared/gpu}")
cd "$root"
scripts/build.sh
rm -rf .gpu/bin && mkdir -p .gpu/bin
cp -r build/bin/. .gpu/bin/
# Symbols are not needed there, and the bundle travels with a size limit.
for f in .gpu/bin/*; do
    [ -f "$f" ] && [ -x "$f" ] && strip --strip-unneeded "$f" 2>/dev/null || true
done
echo "$root" > .gpu/source-dir
if [ ! -f .gpu/bundle.tar.xz ] || [ -n "${REBUNDLE:-}" ]; then
    programs=()
    for f in .gpu/bin/*; do
        [ -f "$f" ] && [ -x "$f" ] && programs+=("$f")
    done
    [ -x /usr/bin/time ] && programs+=(/usr/bin/time)
    "$shared/bundle.sh" .gpu/bundle.tar.xz "${programs[@]}"
fi
du -sh .gpu/bin .gpu/bundle.tar.xz
