#!/bin/sh
# Builds everything (Release, warnings as errors) and runs all tests, then
# builds the unit and GL tests once more with AddressSanitizer and
# UndefinedBehaviorSanitizer (-O1, line tables only for the reports, test
# targets only) and runs them, without the profile and texture-target
# variants of the GL tests, and ends with a bounded fuzzing campaign over the
# file readers (scripts/fuzz.sh).
# No display is needed: the programs start a private X server themselves.
set -e
cd "$(dirname "$0")/.."
jobs=$(nproc)

echo "== Release build and all tests"
scripts/build.sh -DWERROR=ON
(cd build && ctest --output-on-failure -j"$jobs")

echo "== Unit and GL tests under AddressSanitizer and UndefinedBehaviorSanitizer"
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g1" \
    -DSANITIZE=address,undefined -DBUILD_FUZZ=ON >/dev/null
cmake --build build-asan -j"$jobs" --target cpu_tests gl_tests
# GL tests run with leak detection off (set in CTest): Mesa's driver
# allocations live until exit and would be reported. The CPU tests keep it on.
(cd build-asan && ctest --output-on-failure -j"$jobs" -L 'cpu|gl' -LE variant)

echo "== Fuzzing campaign over every reader (3000 mutated files each, same sanitizer build)"
scripts/fuzz.sh --cases 3000
echo "== All tests passed"
