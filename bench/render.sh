#!/usr/bin/env bash
# Renders the sample captures at their default widths and reports, per run,
# the time of every stage (summed over repeats), the total wall time and the
# peak resident memory of the renderer.
#
#   bench/render.sh [BIN_DIR [WORK_DIR]]
#
# BIN_DIR holds tessara-render and tessara-make-capture (default build/bin);
# the captures are made once into WORK_DIR (default build/bench). Each run
# ends with a summary line "== <name>: status S, wall W s, peak P MB".
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bin=$(realpath "${1:-$root/build/bin}")
work=$(realpath -m "${2:-$root/build/bench}")
renderer=$bin/tessara-render
[ -x "$renderer" ] || { echo "bench: $renderer not found; run scripts/build.sh first" >&2; exit 1; }

"$root/scripts/make-captures.sh" "$bin" "$work/captures" >/dev/null
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
    local log=$work/out/$name.log status=0
    echo "== $name"
    echo "   tessara-render $*"
    measure "$log" "$renderer" "$@" || status=$?
    stage_table "$log"
    [ $status -eq 0 ] || tail -n 3 "$log" | sed 's/^/  ! /'
    echo "== $name: status $status, wall $wall s, peak $((peak_kb / 1024)) MB"
    echo
}

c=$work/captures
run ldr-er-jpg "$c/ldr/capture.pts" --er-jpg --output-prefix "$work/out/ldr"
run hdr-all-outputs "$c/hdr/capture.pts" --er-hdr --er-exr --er-jpg --cf-exr --cf-jpg \
    --output-prefix "$work/out/hdr"
