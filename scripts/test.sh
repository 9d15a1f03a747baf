#!/usr/bin/env bash
# Installs what is missing, then builds and runs the whole suite in build trees of its own, with
# every option given, so whatever configured them before (scripts/main.sh uses build/) changes
# nothing: a normal build (g++, build-test/), an ASan+UBSan build (clang, build-asan/), and a TSan
# build (clang, build-tsan/) that runs the threaded tests. Any ctest run that finds no test fails.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
jobs=$(nproc)
common=(-DORVEX_WERROR=ON -DORVEX_BUILD_TESTS=ON -DORVEX_FUZZ=OFF)

# The tests that ran but skipped themselves, with the reason each gave (from ctest's log of the run).
report_skips() {
  local log="$1/Testing/Temporary/LastTest.log"
  [ -f "$log" ] || return 0
  awk '/^[0-9]+\/[0-9]+ Testing: / { name = $3 }
       /: Skipped$/ { getline reason; print "  skipped: " name ": " reason }' "$log"
}

run_ctest() {
  local dir="$1"; shift
  local status=0
  ctest --test-dir "$dir" --output-on-failure --no-tests=error -j"$jobs" "$@" || status=$?
  report_skips "$dir"
  return $status
}

echo "== normal build (g++, build-test/)"
CC=gcc CXX=g++ bash scripts/build.sh build-test -DCMAKE_BUILD_TYPE=RelWithDebInfo "${common[@]}" \
  -DORVEX_SANITIZE= -DORVEX_BUILD_BENCH=ON
run_ctest build-test

echo "== ASan+UBSan build (clang, build-asan/)"
CC=clang CXX=clang++ bash scripts/build.sh build-asan -DCMAKE_BUILD_TYPE=Debug "${common[@]}" \
  -DORVEX_SANITIZE=address,undefined -DORVEX_BUILD_BENCH=OFF
ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_ctest build-asan

echo "== TSan build (clang, build-tsan/): the threaded tests"
# Locks, events, queues, threads, the calls handed to a main thread, connections, the script server and
# start-up in a host, Lua scripts that drive another process's objects (LuaRemote), and every test whose
# name says it races (Race) or runs several threads (Threads), such as TagList readers against appends.
threaded='^(Lock|SpinLock|Event|EventQueue|Thread|ThreadRNG|TagListLock|SymbolCallWithMainThread|RemoteApp[A-Za-z]*|ScriptServer[A-Za-z]*|ScriptApp[A-Za-z]*|StartUp|LuaRemote|ScriptWindow|WakeFlag)\.|Race|Threads'
CC=clang CXX=clang++ bash scripts/build.sh build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo "${common[@]}" \
  -DORVEX_SANITIZE=thread -DORVEX_BUILD_BENCH=OFF
echo "selected:"
ctest --test-dir build-tsan -N --no-tests=error -R "$threaded" | sed -n 's/^ *Test *#[0-9]*: /  /p'
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" run_ctest build-tsan -R "$threaded"
