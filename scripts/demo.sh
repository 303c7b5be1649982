#!/usr/bin/env bash
# Builds the library and runs the demo service with the shipped configuration. Type help
# for its commands and quit to stop; it also reads commands from a pipe:
#   printf 'help\nshow ticks\nquit\n' | bash scripts/demo.sh
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" --target tolven_demo_service tolven_threads_demo >&2
# The service writes its working files (the allocator memory file, say) where it runs:
# build/demo keeps them out of the source tree.
config=$PWD/examples/demo_service.ini
mkdir -p build/demo
cd build/demo
exec ../examples/tolven_demo_service "$config" "$@"
