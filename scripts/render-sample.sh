#!/usr/bin/env bash
# Makes the sample captures and renders them to every output kind with the
# binaries in BIN_DIR, then lists the files written.
#
#   scripts/render-sample.sh BIN_DIR OUT
#
#   OUT/hdr/pano.hdr .exr .jpg, "pano thumbnail.jpg", pano_[rludbf].jpg
#                                   HDR capture, all equirect outputs, JPEG faces, logo
#   OUT/hdr/pano-cubemap.exr        cube map OpenEXR, from pano.hdr
#   OUT/hdr/tiles/                  JPEG tile pyramid of the faces, from pano.hdr
#   OUT/ldr/pano.jpg, "pano thumbnail.jpg"
#                                   LDR capture (JPEG sources) with the logo
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bin=$(realpath "$1")
out=$(realpath -m "$2")
render() {
    echo "+ tessara-render $*"
    "$bin/tessara-render" "$@"
}
"$root/scripts/make-captures.sh" "$bin" "$out/captures"
c=$out/captures
rm -rf "$out/hdr" "$out/ldr"
mkdir -p "$out/hdr" "$out/ldr"

render "$c/hdr/capture.pts" --er-hdr --er-exr --er-jpg --cf-jpg --logo "$c/logo.jpg" --output-prefix "$out/hdr/pano"
# The cube map EXR is named like the equirect EXR (prefix + ".exr"), so it
# gets a prefix of its own; it and the tile pyramid start from the .hdr.
render "$out/hdr/pano.hdr" --cf-exr --output-prefix "$out/hdr/pano-cubemap"
render "$out/hdr/pano.hdr" --cf-jpg --output-prefix "$out/hdr/tiles/"
render "$c/ldr/capture.pts" --er-jpg --logo "$c/logo.jpg" --output-prefix "$out/ldr/pano"

echo
echo "Files written:"
find "$out/hdr" "$out/ldr" -type f ! -path '*/tiles/*' | sort | while read -r f; do
    printf '  %s (%s bytes)\n' "$f" "$(stat -c %s "$f")"
done
echo "  $out/hdr/tiles/: $(find "$out/hdr/tiles" -type f | wc -l) JPEG tiles"
