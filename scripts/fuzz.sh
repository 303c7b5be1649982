#!/usr/bin/env bash
# Builds every fuzz target with clang (libFuzzer, AddressSanitizer with leak detection,
# UndefinedBehaviorSanitizer) and runs each in turn for the given time, starting from the
# seeds in fuzz/corpus/<target>/.
# Usage: scripts/fuzz.sh [seconds per target, default 60] [target...]
#
# What a run finds stays outside the repository, under $TOLVEN_FUZZ_OUT (default
# /tmp/tolven-fuzz): <target>/corpus/ grows from run to run, <target>/findings/ keeps the
# inputs that crashed, leaked or timed out, and <target>/log the last run's output. A finding
# is printed in hex, and the script fails once every target has run. TOLVEN_FUZZ_FLAGS adds
# libFuzzer flags (say "-max_len=65536" or "-dict=FILE").
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
shift || true
case "$seconds" in
    '' | *[!0-9]*) echo "usage: scripts/fuzz.sh [seconds] [target...]" >&2; exit 2 ;;
esac
out=${TOLVEN_FUZZ_OUT:-/tmp/tolven-fuzz}
# On a machine shared with other builds, TOLVEN_BUILD_LOCK names a lock file to build under.
lock=()
[ -n "${TOLVEN_BUILD_LOCK:-}" ] && lock=(flock "$TOLVEN_BUILD_LOCK")

bash scripts/deps.sh fuzz
cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DTOLVEN_BUILD_FUZZERS=ON -DTOLVEN_BUILD_TESTS=OFF -DTOLVEN_BUILD_EXAMPLES=OFF \
    -DTOLVEN_SANITIZE=address,undefined >/dev/null
"${lock[@]}" cmake --build build-fuzz -j"$(nproc)"

if [ $# -gt 0 ]; then
    targets=("$@")
else
    targets=()
    for f in fuzz/*_fuzz.cpp; do
        name=${f#fuzz/}
        targets+=("${name%_fuzz.cpp}")
    done
fi

# Prints a file in hex, the first 4 KB of it.
hex() {
    [ -s "$1" ] || { echo "(empty input)"; return; }
    if command -v xxd >/dev/null; then
        head -c 4096 "$1" | xxd
    else
        head -c 4096 "$1" | od -A x -t x1z -v
    fi
    local size
    size=$(stat -c %s "$1")
    [ "$size" -le 4096 ] || echo "... ($size bytes in all)"
}

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:allocator_may_return_null=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
failed=()
summary=()
for t in "${targets[@]}"; do
    bin=build-fuzz/fuzz/fuzz_$t
    if [ ! -x "$bin" ]; then
        echo "== $t: no such target ($bin)"
        failed+=("$t")
        continue
    fi
    dir=$out/$t
    mkdir -p "$dir/corpus" "$dir/findings"
    seeds=()
    [ -d "fuzz/corpus/$t" ] && seeds=("fuzz/corpus/$t")
    echo "== $t: ${seconds}s"
    # Findings are told apart from older ones by a marker taken before the run.
    touch "$dir/.start"
    # What a target writes to the temporary folder stays beside its findings.
    rm -rf "$dir/tmp"
    mkdir -p "$dir/tmp"
    rc=0
    TMPDIR=$dir/tmp "$bin" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
        -print_final_stats=1 -artifact_prefix="$dir/findings/" ${TOLVEN_FUZZ_FLAGS:-} \
        "$dir/corpus" "${seeds[@]}" >"$dir/log" 2>&1 || rc=$?
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$dir/log" | tail -n 1)
    last=$(grep -E '^#[0-9]+' "$dir/log" | grep 'cov:' | tail -n 1 || true)
    cov=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$last")
    ft=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$last")
    corp=$(sed -n 's/.* corp: \([0-9]*\).*/\1/p' <<<"$last")
    found=()
    while IFS= read -r f; do
        found+=("$f")
    done < <(find "$dir/findings" -type f -newer "$dir/.start" | sort)
    line=$(printf '%-12s runs %-10s cov %-6s ft %-7s corpus %-6s' "$t" "${runs:-?}" \
        "${cov:-?}" "${ft:-?}" "${corp:-?}")
    if [ "$rc" -ne 0 ] || [ ${#found[@]} -gt 0 ]; then
        failed+=("$t")
        summary+=("$line FAILED (exit $rc, ${#found[@]} finding(s))")
        echo "-- $t failed with exit code $rc; the end of its output ($dir/log):"
        grep -E 'ERROR|SUMMARY|runtime error|deadly signal|Test unit written' "$dir/log" |
            head -n 20 || true
        tail -n 30 "$dir/log"
        for f in "${found[@]}"; do
            echo "-- input $f:"
            hex "$f"
        done
    else
        summary+=("$line no findings")
    fi
done

echo "== fuzz summary (${seconds}s a target; output under $out)"
printf '%s\n' "${summary[@]}"
if [ ${#failed[@]} -gt 0 ]; then
    echo "fuzzing failed: ${failed[*]}"
    exit 1
fi
