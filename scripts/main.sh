#!/usr/bin/env bash
# The main job: install what is missing, build (Release, in build/), and run the example script.
# Every option is given, so the build is the same whatever configured build/ before.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
bash scripts/build.sh build -DCMAKE_BUILD_TYPE=Release -DORVEX_BUILD_TESTS=OFF -DORVEX_BUILD_BENCH=OFF \
  -DORVEX_FUZZ=OFF -DORVEX_SANITIZE= -DORVEX_WERROR=OFF
./build/bin/orvexScript examples/tour.lua "$@"
