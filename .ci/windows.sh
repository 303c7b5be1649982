#!/usr/bin/env bash
# The Windows leg: cross-build with mingw-w64 into build-win/ and run the whole test suite
# under Wine. Run from the repository root: bash .ci/windows.sh
set -euo pipefail

cd "$(dirname "$0")/.."
ROOT=$PWD
BUILD=$ROOT/build-win
JOBS=${TOLVEN_JOBS:-2}
START=$(date +%s)

# ---- tools ---------------------------------------------------------------------------------
need=()
for pkg in g++-mingw-w64-x86-64-posix wine wine64 googletest cmake ninja-build; do
    dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" ||
        need+=("$pkg")
done
if ((${#need[@]})); then
    echo "windows leg: installing ${need[*]}"
    SUDO=
    [ "$(id -u)" -eq 0 ] || SUDO=sudo
    export DEBIAN_FRONTEND=noninteractive
    $SUDO apt-get update -q
    $SUDO apt-get install -y -q --no-install-recommends "${need[@]}"
fi

# ---- build ---------------------------------------------------------------------------------
cmake -S "$ROOT" -B "$BUILD" -G Ninja \
    -DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/toolchain-mingw64.cmake" \
    -DTOLVEN_BUILD_TESTS=ON -DTOLVEN_BUILD_BENCHMARKS=OFF -DTOLVEN_BUILD_FUZZERS=OFF \
    -DTOLVEN_WERROR=ON
cmake --build "$BUILD" -j"$JOBS"
BUILT=$(date +%s)

# ---- Wine, headless, in a fresh prefix -----------------------------------------------------
unset DISPLAY WAYLAND_DISPLAY
export WINEDEBUG=-all
export WINEPREFIX=$BUILD/wineprefix
export WINEARCH=win64
# No Mono or Gecko installers: the tests need neither, and nobody is there to answer.
export WINEDLLOVERRIDES="mscoree,mshtml="
rm -rf "$WINEPREFIX"
mkdir -p "$WINEPREFIX"
# A persistent server for the whole run; without it every test waits seconds for the server
# of the previous one to leave.
wineserver -p
trap 'wineserver -k >/dev/null 2>&1 || true' EXIT
# Set the prefix up before CTest: the first Wine program starts Wine's service processes,
# which inherit its output and keep it open; started by a test, they would hold CTest's pipe.
if ! wineboot --init >"$BUILD/wineboot.log" 2>&1; then
    cat "$BUILD/wineboot.log" >&2
    echo "windows leg: could not set up the Wine prefix" >&2
    exit 1
fi

# ---- tests ---------------------------------------------------------------------------------
rc=0
(cd "$BUILD" && ctest --output-on-failure -j"$JOBS" --timeout 600) || rc=$?

# Tests skipped under Wine are never silent: list each with its reason.
log=$BUILD/Testing/Temporary/LastTest.log
if [ -f "$log" ] && grep -q '^\[  SKIPPED \]' "$log"; then
    echo "windows leg: test cases skipped, with their reasons:"
    awk '/^\[ RUN      \]/ { name = $4; reason = ""; skipped = 0; grab = 0; next }
         / Skipped$/       { skipped = 1; grab = 1; next }
         /^\[  SKIPPED \]/ { if (skipped) printf "  %s: %s\n", name, reason; skipped = 0; grab = 0; next }
         /^\[/             { grab = 0 }
         grab && NF        { reason = reason (reason == "" ? "" : " ") $0 }' "$log" | sort -u
fi
END=$(date +%s)
echo "windows leg: configure+build $((BUILT - START)) s, tests $((END - BUILT)) s, total $((END - START)) s"
exit $rc
