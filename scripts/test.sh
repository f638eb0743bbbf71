#!/usr/bin/env bash
# Installs what is missing, builds Tessarine and runs the whole test suite:
# the unit and end-to-end tests, the concurrency tests again under
# ThreadSanitizer and AddressSanitizer, and every fuzz target for a bounded
# time. Exits non-zero when anything fails.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
jobs=$(nproc)

bash scripts/install-deps.sh

run_tree() { # name, ctest arguments..., then -- cmake arguments
  local dir=$1; shift
  local ctest_args=()
  while [ $# -gt 0 ] && [ "$1" != "--" ]; do ctest_args+=("$1"); shift; done
  shift
  cmake -S "$root" -B "$root/$dir" -G Ninja "$@" >/dev/null
  cmake --build "$root/$dir" -j "$jobs"
  ctest --test-dir "$root/$dir" --output-on-failure "${ctest_args[@]}"
}

echo "== sanitizer builds of the concurrency tests"
run_tree build-tsan -L concurrency -- -DTS_SANITIZE=thread -DTS_BUILD_BENCH=OFF -DTS_BUILD_UI=OFF
run_tree build-asan -L concurrency -- -DTS_SANITIZE=address -DTS_BUILD_BENCH=OFF -DTS_BUILD_UI=OFF

if [ -n "$(ls fuzz/*/CMakeLists.txt 2>/dev/null)" ]; then
  echo "== fuzz targets (${TS_FUZZ_SECONDS:-60} s each)"
  run_tree build-fuzz -- -DTS_FUZZ=ON -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DTS_FUZZ_SECONDS="${TS_FUZZ_SECONDS:-60}"
fi

echo "== test suite"
run_tree build -j1 -- -DCMAKE_BUILD_TYPE=RelWithDebInfo
