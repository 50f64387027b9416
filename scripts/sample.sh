#!/bin/sh
# Builds the renderer and shows that it runs here: version and GL report.
set -e
cd "$(dirname "$0")/.."
scripts/build.sh
build/bin/tessara-render -V
