#!/usr/bin/env bash
# The main job: install what is missing, build, and run the example script.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
bash scripts/build.sh build -DCMAKE_BUILD_TYPE=Release -DORVEX_BUILD_TESTS=OFF -DORVEX_BUILD_BENCH=OFF
./build/bin/orvexScript examples/tour.lua "$@"
