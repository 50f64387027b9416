# Measuring helpers of the bench scripts (sourced).

# Peak resident set size (peak_kb), wall time (wall, s) and CPU time (cpu,
# user + system s, "-" without /usr/bin/time) of a command; its stderr is
# kept in $log. /usr/bin/time when present, else the kernel's high-water mark
# sampled while the command runs.
measure() {
    local log=$1; shift
    local start end status=0
    start=$(date +%s.%N)
    if [ -x /usr/bin/time ]; then
        /usr/bin/time -f '%M %U %S' -o "$log.rss" "$@" >/dev/null 2>"$log" || status=$?
        read -r peak_kb user sys < <(tail -n 1 "$log.rss")
        cpu=$(awk -v u="$user" -v s="$sys" 'BEGIN {printf "%.2f", u + s}')
    else
        "$@" >/dev/null 2>"$log" &
        local pid=$! hwm
        peak_kb=0 cpu=-
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
    awk -f "$(dirname "${BASH_SOURCE[0]}")/stage-table.awk" "$1"
}
