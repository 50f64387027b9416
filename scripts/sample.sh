#!/bin/sh
# Builds the renderer and the capture generator, and renders the bundled
# sample captures to every output kind into sample/ (scripts/render-sample.sh
# says what is written where).
set -e
cd "$(dirname "$0")/.."
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j"$(nproc)" --target tessara-render tessara-make-capture
build/bin/tessara-render -V
scripts/render-sample.sh build/bin sample
