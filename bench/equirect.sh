#!/usr/bin/env bash
# An equirect panorama to a full tile pyramid with the web viewers'
# configurations and the previews, at about 8k and 16k wide: wall time, CPU
# time, peak resident memory and the time of each stage (the renderer's stage
# lines). With BASELINE_BIN set, the same jobs also run on that build's
# renderer, interleaved, for the JPEG tile path before and after.
#
#   [RUNS=n] [BASELINE_BIN=dir] bench/equirect.sh [BIN_DIR [WORK_DIR]]
#
# The inputs are Radiance panoramas of sizes the renderer reprojects (width a
# multiple of 20 and at most llvmpipe's 16384), made once into WORK_DIR
# (default build/bench) by bench/make-equirect.mjs.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bin=$(realpath "${1:-$root/build/bin}")
work=$(realpath -m "${2:-$root/build/bench}")
[ -x "$bin/tessara-render" ] || { echo "bench: $bin/tessara-render not found" >&2; exit 1; }
source "$root/bench/measure.sh"
mkdir -p "$work/out"

run() {
    local name=$1 renderer=$2; shift 2
    local log=$work/out/$name.log status=0
    rm -rf "$work/out/$name"
    echo "== $name"
    echo "   $renderer $*"
    measure "$log" "$renderer" "$@" --output-prefix "$work/out/$name/" || status=$?
    stage_table "$log"
    [ $status -eq 0 ] || tail -n 3 "$log" | sed 's/^/  ! /'
    echo "== $name: status $status, wall $wall s, cpu $cpu s, peak $((peak_kb / 1024)) MB," \
        "$(find "$work/out/$name" -type f | wc -l) files, $(du -sm "$work/out/$name" | cut -f1) MB"
    echo
}

for width in 8200 16380; do
    input=$work/equirect-$width.hdr
    [ -s "$input" ] || node "$root/bench/make-equirect.mjs" "$width" "$input"
    for ((i = 1; i <= ${RUNS:-1}; ++i)); do
        run "pyramid-$width" "$bin/tessara-render" "$input" --cf-jpg
        run "pyramid-$width-webp" "$bin/tessara-render" "$input" --cf-jpg --tile-format webp
        if [ -n "${BASELINE_BIN:-}" ]; then
            run "pyramid-$width-baseline" "$BASELINE_BIN/tessara-render" "$input" --cf-jpg
        fi
    done
done
