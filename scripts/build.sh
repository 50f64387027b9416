#!/bin/sh
# Configures and builds the Release tree in build/: build/bin/tessara-render
# with its shader files beside it, the capture generator, tests and benchmarks.
# Extra arguments go to the CMake configure step (e.g. -DWERROR=ON).
set -e
cd "$(dirname "$0")/.."
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release "$@" >/dev/null
cmake --build build -j"$(nproc)"
