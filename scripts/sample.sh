#!/bin/sh
# Builds the renderer and renders the bundled sample captures to every output
# kind into sample/ (see scripts/render-sample.sh for what is written where).
set -e
cd "$(dirname "$0")/.."
scripts/build.sh
build/bin/tessara-render -V
scripts/render-sample.sh build/bin sample
