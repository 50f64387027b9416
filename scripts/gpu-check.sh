#!/usr/bin/env bash
# Runs on the NVIDIA machine, as root, in the repository root, after
# scripts/gpu-bundle.sh has filled .gpu/ here: unpacks the bundle, runs the
# test binaries, renders the sample and the benchmarks on the GPU, and prints
# one table. Exit status 0 when every check passed.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
bin=$root/.gpu/bin
work=$root/.gpu/work
[ -x "$bin/tessara-render" ] && [ -f .gpu/bundle.tar.xz ] ||
    { echo "gpu-check: .gpu/bin or .gpu/bundle.tar.xz missing; run scripts/gpu-bundle.sh first" >&2; exit 2; }

# The libraries, Xvfb and Qt's xcb platform this machine lacks.
if [ ! -x /usr/bin/Xvfb ]; then
    tar -xJf .gpu/bundle.tar.xz -C / --no-overwrite-dir && ldconfig
fi
mkdir -p /tmp/.X11-unix && chmod 1777 /tmp/.X11-unix

# The tests find the binaries and test data under the directory they were
# built in; make that path lead here.
src=$(cat .gpu/source-dir 2>/dev/null || true)
if [ -n "$src" ] && [ "$src" != "$root" ] && [ ! -e "$src" ]; then
    mkdir -p "$(dirname "$src")" && ln -s "$root" "$src"
fi
mkdir -p build
[ -e build/bin ] || ln -s "$bin" build/bin

# Headless the way users run it: the renderer starts its own X server and
# picks NVIDIA's GLX library by itself.
unset DISPLAY __GLX_VENDOR_LIBRARY_NAME
rm -rf "$work" && mkdir -p "$work"

rows=()
failed=0
row() {  # check, result, seconds, detail
    rows+=("$(printf '| %-30s | %-4s | %8s | %s' "$1" "$2" "$3" "$4")")
    [ "$2" = ok ] || failed=1
}
elapsed() { awk -v a="$1" -v b="$(date +%s.%N)" 'BEGIN {printf "%.1f", b - a}'; }

# GL context: renderer and version, compatibility and core profile.
servers_before=$(pgrep -x Xvfb | wc -l)
for profile in compat core; do
    t=$(date +%s.%N)
    if [ $profile = core ]; then env USE_GL_CORE=1 "$bin/tessara-render" -V >"$work/V-$profile.txt" 2>&1
    else "$bin/tessara-render" -V >"$work/V-$profile.txt" 2>&1; fi
    status=$?
    renderer=$(sed -n 's/^GL_RENDERER: *//p' "$work/V-$profile.txt")
    version=$(sed -n 's/^GL_VERSION: *//p' "$work/V-$profile.txt")
    result=ok
    { [ $status -eq 0 ] && grep -qi nvidia <<<"$renderer"; } || result=FAIL
    row "GL context ($profile)" $result "$(elapsed "$t")" "$renderer / $version"
done
leftover=$(( $(pgrep -x Xvfb | wc -l) - servers_before ))
row "no Xvfb left after -V" "$([ "$leftover" -le 0 ] && echo ok || echo FAIL)" "" "$leftover more running than before"

# Test binaries (the GL tests also under the core profile).
run_tests() {  # name, binary, env...
    local name=$1 binary=$2; shift 2
    local t log=$work/$binary${1:+-${1%%=*}}.log status
    t=$(date +%s.%N)
    env "$@" "$bin/$binary" --gtest_brief=1 >"$log" 2>&1
    status=$?
    local passed failed_n
    passed=$(sed -n 's/^\[  PASSED  \] \([0-9]*\) test.*/\1/p' "$log" | tail -n 1)
    failed_n=$(sed -n 's/^\[  FAILED  \] \([0-9]*\) test.*/\1/p' "$log" | tail -n 1)
    local detail="${passed:-0} passed, ${failed_n:-0} failed"
    [ $status -eq 0 ] || detail="$detail: $(grep -m 3 '^\[  FAILED  \] [A-Za-z]' "$log" | sed 's/^\[  FAILED  \] //' | tr '\n' ' ')"
    row "$name" "$([ $status -eq 0 ] && echo ok || echo FAIL)" "$(elapsed "$t")" "$detail"
}
run_tests cpu_tests cpu_tests
run_tests gl_tests gl_tests
run_tests "gl_tests (USE_GL_CORE)" gl_tests USE_GL_CORE=1
run_tests e2e_tests e2e_tests

# The README's sample, rendered with these binaries.
t=$(date +%s.%N)
scripts/render-sample.sh "$bin" "$work/sample" >"$work/sample.log" 2>&1
status=$?
row "sample render (all outputs)" "$([ $status -eq 0 ] && echo ok || echo FAIL)" "$(elapsed "$t")" \
    "$(find "$work/sample" -type f 2>/dev/null | wc -l) files; log .gpu/work/sample.log"

# Benchmarks: one row per run, from the summary lines.
bench/render.sh "$bin" "$work/bench" >"$work/bench.log" 2>&1
while read -r line; do
    # "== <name>: status S, wall W s, peak P MB"
    name=$(sed -n 's/^== \([^:]*\): .*/\1/p' <<<"$line")
    status=$(sed -n 's/.*status \([0-9]*\),.*/\1/p' <<<"$line")
    wall=$(sed -n 's/.*wall \([0-9.]*\) s.*/\1/p' <<<"$line")
    peak=$(sed -n 's/.*peak \([0-9]*\) MB.*/\1/p' <<<"$line")
    slowest=$(awk -v n="$name" '
        $0 == "== " n {on = 1; next}
        /^== / {on = 0}
        on && NF >= 3 && $NF ~ /^[0-9.]+$/ && $(NF - 1) ~ /^[0-9]+$/ {
            l = $1; for (i = 2; i <= NF - 2; i++) l = l " " $i
            if ($NF + 0 > best) {best = $NF + 0; label = l}
        }
        END {if (best > 0) printf "slowest stage: %s %.2f s", label, best}' "$work/bench.log")
    row "bench $name" "$([ "$status" = 0 ] && echo ok || echo FAIL)" "$wall" "peak $peak MB; $slowest"
done < <(grep -E '^== [^:]+: status' "$work/bench.log")
grep -qE '^== [^:]+: status' "$work/bench.log" || row "bench" FAIL "" "no results; log .gpu/work/bench.log"

echo
printf '| %-30s | %-4s | %8s | %s\n' check ok seconds detail
printf '|%s|%s|%s|%s\n' "--------------------------------" "------" "----------" "--------"
printf '%s\n' "${rows[@]}"
exit $failed
