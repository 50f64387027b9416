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

# Peak resident set size (MB) and wall time (s) of a command; its stderr is
# kept in $log. /usr/bin/time when present, else the kernel's high-water mark
# sampled while the command runs.
measure() {
    local log=$1; shift
    local start end status=0
    start=$(date +%s.%N)
    if [ -x /usr/bin/time ]; then
        /usr/bin/time -f '%M' -o "$log.rss" "$@" >/dev/null 2>"$log" || status=$?
        peak_kb=$(tail -n 1 "$log.rss")
    else
        "$@" >/dev/null 2>"$log" &
        local pid=$! hwm
        peak_kb=0
        while kill -0 "$pid" 2>/dev/null; do
            hwm=$(awk '/^VmHWM:/ {print $2}' "/proc/$pid/status" 2>/dev/null || true)
            [ -n "$hwm" ] && [ "$hwm" -gt "$peak_kb" ] && peak_kb=$hwm
            sleep 0.05
        done
        wait "$pid" || status=$?
    fi
    end=$(date +%s.%N)
    wall=$(awk -v a="$start" -v b="$end" 'BEGIN {printf "%.2f", b - a}')
    return $status
}

# Table of the stage lines in a renderer log: "<prefix> <stage>: <seconds>s".
stage_table() {
    awk '
        match($0, /: [0-9]+\.[0-9]+s$/) {
            label = substr($0, 1, RSTART - 1); secs = substr($0, RSTART + 2, RLENGTH - 3)
            gsub(/^ +| +$/, "", label); gsub(/  +/, " ", label)
            if (!(label in total)) order[n++] = label
            total[label] += secs; count[label]++
        }
        END {
            printf "  %-32s %6s %9s\n", "stage", "count", "seconds"
            for (i = 0; i < n; i++) { l = order[i]; printf "  %-32s %6d %9.3f\n", l, count[l], total[l] }
        }' "$1"
}

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
