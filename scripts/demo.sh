#!/usr/bin/env bash
# Builds the library and runs the demo.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" --target tolven_threads_demo
exec ./build/examples/tolven_threads_demo "$@"
