#!/bin/sh
# Fuzzing campaign over every file reader (fuzz/): .hdr, .exr, JPEG, PNG, TIFF, pts, tsp
# and the PPM stream of the raw decoder, under AddressSanitizer and
# UndefinedBehaviorSanitizer.
#
#   scripts/fuzz.sh [--cases N] [--seed S]   bounded campaign: N mutated cases
#                                            per reader (default 3000) with
#                                            the project's mutation driver
#   scripts/fuzz.sh --minutes M [--seed S]   long campaign of about M minutes
#                                            in all, with clang's libFuzzer
#                                            where it is installed, else with
#                                            the driver in rounds of 5000
#
# A case fails on a crash, a sanitizer report, more than 2 s, or a single
# allocation above max(64 MiB, 1024 x the input's size) (see fuzz/driver.cpp;
# libFuzzer runs with -timeout=2 -malloc_limit_mb=64 -max_len=65536, the same
# rule for its inputs). Failing inputs are kept in build-fuzz-out/.
set -e
cd "$(dirname "$0")/.."
cases=3000
minutes=0
seed=1
while [ $# -gt 0 ]; do
    case "$1" in
    --cases) cases=$2; shift 2 ;;
    --minutes) minutes=$2; shift 2 ;;
    --seed) seed=$2; shift 2 ;;
    *) echo "usage: $0 [--cases N | --minutes M] [--seed S]" >&2; exit 2 ;;
    esac
done
readers="hdr exr jpeg pts tsp ppm png tiff"
jobs=$(nproc)
out=build-fuzz-out
mkdir -p "$out"
# Failures are expected to be the sanitizers' own reports; keep them short
# and make every finding end the process.
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0:allocator_may_return_null=0}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"

have_libfuzzer() {
    command -v clang++ >/dev/null 2>&1 || return 1
    printf 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }\n' \
        > "$out/probe.cpp"
    clang++ -fsanitize=fuzzer,address,undefined "$out/probe.cpp" -o "$out/probe" >/dev/null 2>&1
}

# The mutation driver shares the sanitizer build of scripts/test.sh.
build_driver() {
    cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g1" \
        -DSANITIZE=address,undefined -DBUILD_FUZZ=ON >/dev/null
    targets=""
    for r in $readers; do targets="$targets --target fuzz-$r"; done
    # shellcheck disable=SC2086
    cmake --build build-asan -j"$jobs" $targets
}

run_driver_round() {  # cases seed
    for r in $readers; do
        build-asan/bin/fuzz-$r --corpus fuzz/corpus/$r --cases "$1" --seed "$2" --crashes "$out"
    done
}

if [ "$minutes" -gt 0 ] && have_libfuzzer; then
    CC=clang CXX=clang++ cmake -S . -B build-libfuzzer -DCMAKE_BUILD_TYPE=Debug \
        -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g1" -DSANITIZE=address,undefined,fuzzer-no-link \
        -DBUILD_FUZZ=ON -DFUZZ_LIBFUZZER=ON -DBUILD_TESTS=OFF >/dev/null
    targets=""
    for r in $readers; do targets="$targets --target fuzz-$r"; done
    # shellcheck disable=SC2086
    cmake --build build-libfuzzer -j"$jobs" $targets
    per=$((minutes * 60 / 6))
    [ "$per" -gt 0 ] || per=1
    for r in $readers; do
        # Work on a copy: the checked-in seeds stay as they are.
        rm -rf "$out/corpus-$r" && mkdir -p "$out/corpus-$r" && cp fuzz/corpus/$r/* "$out/corpus-$r/"
        build-libfuzzer/bin/fuzz-$r -seed="$seed" -max_total_time="$per" -timeout=2 -malloc_limit_mb=64 \
            -rss_limit_mb=4096 -max_len=65536 -artifact_prefix="$out/$r-" -print_final_stats=1 \
            "$out/corpus-$r" 2>&1 | grep -E 'stat::number_of_executed_units|ERROR|SUMMARY|Done' || true
        if ls "$out/$r-"* >/dev/null 2>&1; then
            echo "fuzz: findings for $r in $out/" >&2
            exit 1
        fi
    done
    echo "== libFuzzer campaign passed ($minutes min)"
    exit 0
fi

build_driver
if [ "$minutes" -gt 0 ]; then
    end=$(($(date +%s) + minutes * 60))
    while [ "$(date +%s)" -lt "$end" ]; do
        run_driver_round 5000 "$seed"
        seed=$((seed + 1))
    done
else
    run_driver_round "$cases" "$seed"
fi
echo "== Fuzzing campaign passed"
