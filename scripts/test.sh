#!/usr/bin/env bash
# Builds the library with every test and runs them all.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTOLVEN_BUILD_TESTS=ON \
    -DTOLVEN_WERROR="${TOLVEN_WERROR:-OFF}" >/dev/null
cmake --build build -j"$(nproc)"
cd build
ctest --output-on-failure -j"$(nproc)" --timeout 900
