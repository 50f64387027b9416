#!/usr/bin/env bash
# The same N captures rendered as N tessara-render processes and as one
# tessara-batch: wall time per capture, captures per hour, the per-capture
# overhead of each, and the batch's peak resident memory per job.
#
#   bench/batch.sh [BIN_DIR [WORK_DIR [N]]]
#
# BIN_DIR holds tessara-render, tessara-batch and tessara-make-capture
# (default build/bin); WORK_DIR (default build/bench-batch) gets one small
# five-slot capture (400 x 600 JPEG sources) rendered N times (default 20) to
# a 2400-wide JPEG, its thumbnail and six 512-pixel cube faces.
#
# Per-capture overhead = wall time per capture - the capture's own work, with
# the work taken as the batch's mean stage-time sum per line from line 2 on
# (warm caches). For single runs it holds process and X server start-up, the
# GL context and the shader builds; for the batch, its bookkeeping and its one
# start-up shared by all lines. Memory: the batch's peak resident set while
# each line ran (reset per line); job 2 and job N should not differ by more
# than 5 %.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bin=$(realpath "${1:-$root/build/bin}")
work=$(realpath -m "${2:-$root/build/bench-batch}")
n=${3:-20}
for program in tessara-render tessara-batch tessara-make-capture; do
    [ -x "$bin/$program" ] || { echo "bench: $bin/$program not found; run scripts/build.sh first" >&2; exit 1; }
done

rm -rf "$work/out" "$work/manifest.txt" "$work/manifest.txt.state" "$work/report.jsonl"
mkdir -p "$work/out"
[ -f "$work/ldr/capture.pts" ] ||
    "$bin/tessara-make-capture" "$root/tests/data/panoramas/courtyard.exr" "$work/ldr" --scale 0.1 >/dev/null 2>&1
options=(--er-width 2400 --er-jpg --cf-jpg --cf-width 512)
for i in $(seq "$n"); do
    echo "ldr/capture.pts ${options[*]} --output-prefix out/batch-$i" >>"$work/manifest.txt"
done

now() { date +%s.%N; }
cd "$work"
start=$(now)
single_peak=0
for i in $(seq "$n"); do
    /usr/bin/time -f '%M' -o single.rss "$bin/tessara-render" ldr/capture.pts "${options[@]}" \
        --output-prefix "out/single-$i" >/dev/null 2>single.log
    kb=$(tail -n 1 single.rss)
    [ "$kb" -gt "$single_peak" ] && single_peak=$kb
done
single_wall=$(awk -v a="$start" -v b="$(now)" 'BEGIN { print b - a }')

start=$(now)
"$bin/tessara-batch" manifest.txt --report report.jsonl >/dev/null 2>batch.log
batch_wall=$(awk -v a="$start" -v b="$(now)" 'BEGIN { print b - a }')
for i in $(seq "$n"); do
    cmp -s "out/single-$i.jpg" "out/batch-$i.jpg" || { echo "bench: line $i differs from its single run" >&2; exit 1; }
done

# Per line: wall seconds, stage sum, peak MB.
awk -v n="$n" -v single="$single_wall" -v batch="$batch_wall" -v speak="$single_peak" '
    {
        match($0, /"seconds":[0-9.]+,"stages"/); wall = substr($0, RSTART + 10, RLENGTH - 19) + 0
        s = $0; sum = 0
        while (match(s, /"stage":"[^"]*","seconds":[0-9.]+/)) {
            t = substr(s, RSTART, RLENGTH); sub(/.*"seconds":/, "", t); sum += t; s = substr(s, RSTART + RLENGTH)
        }
        match($0, /"peak_rss_mb":[0-9.]+/); peak[NR] = substr($0, RSTART + 14, RLENGTH - 14) + 0
        if (NR > 1) { work += sum; lines++ }
    }
    END {
        w = work / lines
        printf "captures: %d (2400 x 1200 JPEG, thumbnail, six 512 px faces; 400 x 600 JPEG sources)\n", n
        printf "work per capture (batch stage sum, lines 2..%d): %.3f s\n", n, w
        printf "%-22s %9s %12s %16s %14s\n", "", "wall (s)", "s / capture", "captures / hour", "overhead (s)"
        printf "%-22s %9.2f %12.3f %16.0f %14.3f\n", "tessara-render x " n, single, single / n, 3600 * n / single, single / n - w
        printf "%-22s %9.2f %12.3f %16.0f %14.3f\n", "tessara-batch", batch, batch / n, 3600 * n / batch, batch / n - w
        printf "peak memory: single runs %.0f MB (largest); batch job 2 %.1f MB, job %d %.1f MB (%+.1f %%)\n",
            speak / 1024, peak[2], n, peak[n], 100 * (peak[n] - peak[2]) / peak[2]
        printf "batch peak per job (MB):"
        for (i = 1; i <= n; i++) printf " %.0f", peak[i]
        printf "\n"
    }' report.jsonl
