#!/usr/bin/env bash
# Makes the sample captures from the bundled CC0 panoramas, and a logo:
#   OUT/ldr/capture.pts  five-slot fisheye capture, six 24-megapixel JPEGs
#   OUT/ldr/capture.tsp  its project document (the EXR outputs quote it)
#   OUT/hdr/capture.pts  the same rig with Radiance (.hdr) sources, and .tsp
#   OUT/logo.jpg         a 512 x 512 logo for the nadir
#
#   scripts/make-captures.sh BIN_DIR OUT [generator options, e.g. --scale 0.25]
#
# BIN_DIR holds tessara-make-capture. Nothing is redone when OUT already holds
# captures made with the same options.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bin=$(realpath "$1")
out=$(realpath -m "$2")
shift 2
options=(--scale 1 --tsp "$@")
stamp="$out/.made-with"
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "${options[*]}" ] && [ -f "$out/logo.jpg" ]; then
    echo "captures in $out are up to date"
    exit 0
fi
rm -rf "$out/ldr" "$out/hdr" "$stamp"
mkdir -p "$out"
"$bin/tessara-make-capture" "$root/tests/data/panoramas/courtyard.exr" "$out/ldr" "${options[@]}"
"$bin/tessara-make-capture" "$root/tests/data/panoramas/city.exr" "$out/hdr" --hdr "${options[@]}"

# The logo: a white ring and a "T" on a dark blue disc (its top shows
# which way the logo is turned), as an ASCII PPM that
# cjpeg turns into a JPEG.
awk 'BEGIN {
    n = 512; c = (n - 1) / 2
    print "P3"; print n, n; print 255
    for (y = 0; y < n; y++) {
        line = ""
        for (x = 0; x < n; x++) {
            dx = x - c; dy = y - c; r = sqrt(dx * dx + dy * dy)
            if (r > 250) { R = 40; G = 40; B = 40 }
            else if (r > 220 || (dy > -120 && dy < -80 && dx > -110 && dx < 110) ||
                     (dx > -20 && dx < 20 && dy > -120 && dy < 140)) { R = 245; G = 245; B = 240 }
            else { R = 20; G = 50; B = 120 }
            line = line R " " G " " B " "
        }
        print line
    }
}' | cjpeg -quality 92 > "$out/logo.jpg"
echo "${options[*]}" > "$stamp"
echo "captures written to $out"
