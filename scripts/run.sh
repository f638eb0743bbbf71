#!/usr/bin/env bash
# Installs what is missing, builds Tessarine and runs it. Without a display
# the program runs headless and prints its console lines; arguments are passed on.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)" --target tessarine
exec ./build/src/main/tessarine "$@"
