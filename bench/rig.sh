#!/usr/bin/env bash
# Stitching of a general rig: four 24-megapixel circular fisheye shots, 90
# degrees apart and tilted up (a panorama head's commonest rig, crops black
# outside the circle, exposure steps and vignetting), rendered to an
# equirect JPEG at 14140 and at 4080 columns. Reports per run the time of
# every stage, wall and CPU time and the renderer's peak resident memory.
#
#   bench/rig.sh [BIN_DIR [WORK_DIR]]
#
# BIN_DIR holds tessara-render and tessara-make-capture (default build/bin);
# the capture is made once into WORK_DIR/rig (default build/bench).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bin=$(realpath "${1:-$root/build/bin}")
work=$(realpath -m "${2:-$root/build/bench}")
capture=$work/rig
if [ ! -f "$capture/rig.pts" ]; then
    "$bin/tessara-make-capture" "$root/tests/data/panoramas/courtyard.exr" "$capture" --layout circular4 \
        --scale 1 --exposure --vignetting --supersample 1 --detail 4 --stem rig >/dev/null
fi
mkdir -p "$work/out"
for width in 14140 4080; do
    log=$work/out/rig-$width.log
    /usr/bin/time -f 'wall %e s, CPU %U s user + %S s system, peak %M kB' -o "$log.time" \
        "$bin/tessara-render" "$capture/rig.pts" --output-prefix "$work/out/rig-$width" --er-width "$width" \
        --er-jpg >/dev/null 2>"$log"
    echo "== rig, 4 x 24 MP circular fisheyes -> $width wide: $(cat "$log.time")"
    awk -f "$root/bench/stage-table.awk" "$log"
done
