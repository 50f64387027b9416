#!/usr/bin/env bash
# Renders the sample captures, with the fine detail of real photographs
# added (24-megapixel JPEGs of 8 to 9 MB), and reports, per run, the time of
# every stage (summed over repeats), the total wall time and the peak
# resident memory of the renderer.
#
#   [RUNS=n] bench/render.sh [BIN_DIR [WORK_DIR]]
#
# BIN_DIR holds tessara-render and tessara-make-capture (default build/bin);
# the captures are made once into WORK_DIR (default build/bench). Each job
# runs RUNS times (default 1); each run ends with a summary line
# "== <name>: status S, wall W s, peak P MB" and, with several runs, the
# job with "== <name>: best of n: W s".
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bin=$(realpath "${1:-$root/build/bin}")
work=$(realpath -m "${2:-$root/build/bench}")
renderer=$bin/tessara-render
[ -x "$renderer" ] || { echo "bench: $renderer not found; run scripts/build.sh first" >&2; exit 1; }

# The detail decides what the codecs cost; with it, supersampling the smooth
# scene would only make the captures slower to make.
"$root/scripts/make-captures.sh" "$bin" "$work/captures" --detail 4 --supersample 1 >/dev/null
mkdir -p "$work/out"

source "$root/bench/measure.sh"

run() {
    local name=$1; shift
    local log=$work/out/$name.log status best=
    for ((i = 1; i <= ${RUNS:-1}; ++i)); do
        status=0
        echo "== $name"
        echo "   tessara-render $*"
        measure "$log" "$renderer" "$@" || status=$?
        stage_table "$log"
        [ $status -eq 0 ] || tail -n 3 "$log" | sed 's/^/  ! /'
        echo "== $name: status $status, wall $wall s, peak $((peak_kb / 1024)) MB"
        echo
        best=$(awk -v a="${best:-$wall}" -v b="$wall" 'BEGIN {print (b < a ? b : a)}')
    done
    [ "${RUNS:-1}" -le 1 ] || echo "== $name: best of ${RUNS} runs: $best s"
}

c=$work/captures
run ldr-er-jpg "$c/ldr/capture.pts" --er-jpg --output-prefix "$work/out/ldr"
run ldr-4080-er-jpg "$c/ldr/capture.pts" --er-width 4080 --er-jpg --output-prefix "$work/out/ldr-4080"
run hdr-all-outputs "$c/hdr/capture.pts" --er-hdr --er-exr --er-jpg --cf-exr --cf-jpg \
    --output-prefix "$work/out/hdr"
