#!/usr/bin/env bash
# Installs the benchmark peers, builds the benchmarks in Release, runs them and prints the
# table of ours against the peers (rows and targets: bench/targets.tsv).
# Usage: scripts/bench.sh [filter]
#   filter  a regular expression: the programs it names (core, memory, "^blob$"), or else the
#           rows whose operation, benchmark or peer it matches ("QuickLock", "spdlog")
# A peer that cannot be installed leaves out only its rows, with the reason. The results
# (JSON and console output of each program) stay in build-bench/results/. Run it on an idle
# machine: the figures are only as steady as the processors are free.
set -euo pipefail
cd "$(dirname "$0")/.."
results=build-bench/results
mkdir -p "$results"
# On a machine shared with other builds, TOLVEN_BUILD_LOCK names a lock file to build under.
lock=()
[ -n "${TOLVEN_BUILD_LOCK:-}" ] && lock=(flock "$TOLVEN_BUILD_LOCK")

# deps.sh tells on standard error why a peer could not be installed; the table repeats it.
status=0
bash scripts/deps.sh bench 2>"$results/deps.log" || status=$?
cat "$results/deps.log" >&2
[ $status -eq 0 ] || exit $status
cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DTOLVEN_BUILD_BENCHMARKS=ON \
    -DTOLVEN_BUILD_TESTS=OFF -DTOLVEN_BUILD_EXAMPLES=OFF >"$results/configure.log"
grep 'benchmark peer' "$results/configure.log" || true
"${lock[@]}" cmake --build build-bench -j"$(nproc)"

python=python3
[ -x /usr/bin/python3 ] && python=/usr/bin/python3
TOLVEN_BENCH_DEPS_LOG=$results/deps.log exec "$python" scripts/bench_table.py build-bench/bench \
    "$results" "${1:-}"
