#!/usr/bin/env bash
# Installs what is missing, then builds and runs the whole suite twice: a normal build (g++) and an
# ASan+UBSan build (clang).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
jobs=$(nproc)

echo "== normal build (g++)"
CC=gcc CXX=g++ bash scripts/build.sh build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORVEX_WERROR=ON
ctest --test-dir build --output-on-failure -j"$jobs"

echo "== ASan+UBSan build (clang)"
CC=clang CXX=clang++ bash scripts/build.sh build-asan -DCMAKE_BUILD_TYPE=Debug -DORVEX_WERROR=ON \
  -DORVEX_SANITIZE=address,undefined -DORVEX_BUILD_BENCH=OFF
ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build-asan --output-on-failure -j"$jobs"
