#!/usr/bin/env bash
# Installs the Debian packages the build needs, only those that are missing.
# Usage: scripts/deps.sh [bench] [fuzz] [extra packages...]
#   (none)  what the library, its tests and examples need
#   bench   also the benchmark peers, each on its own: a peer that cannot be installed is
#           reported ("deps: cannot install PACKAGE: REASON") and the others go on
#   fuzz    also clang with libFuzzer and the sanitizers
set -euo pipefail

packages=(
    build-essential cmake ninja-build pkg-config git
    googletest libgtest-dev libbenchmark-dev
    libsimpleini-dev liblua5.1-0-dev libminizip-dev zlib1g-dev libxml2-dev
    libnuma-dev uuid-dev
    rsyslog
)
# The benchmark peers: headers and libraries the programs compile against, and the
# allocators the memory benchmark loads at run time.
bench_peers=(
    libspdlog-dev libboost-dev libpoco-dev libmsgpack-cxx-dev libbson-dev librocksdb-dev
    libmimalloc2.0 libjemalloc2 libtcmalloc-minimal4
)
optional=()
for arg in "$@"; do
    case "$arg" in
        bench) packages+=(python3); optional+=("${bench_peers[@]}") ;;
        fuzz) packages+=(clang libclang-rt-dev xxd) ;;
        *) packages+=("$arg") ;;
    esac
done

installed() {
    dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'
}

SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
updated=0
apt_install() {
    if [ $updated -eq 0 ]; then
        $SUDO apt-get update -qq
        updated=1
    fi
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "$@"
}

missing=()
for p in "${packages[@]}"; do
    installed "$p" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "installing: ${missing[*]}"
    apt_install "${missing[@]}"
fi

# Optional packages one by one, so that one that fails leaves the others in place.
absent=()
for p in "${optional[@]}"; do
    installed "$p" || absent+=("$p")
done
if [ ${#absent[@]} -gt 0 ] && [ $updated -eq 0 ]; then
    $SUDO apt-get update -qq || echo "deps: apt-get update failed" >&2
    updated=1
fi
for p in "${absent[@]}"; do
    echo "installing: $p"
    if ! out=$(apt_install "$p" 2>&1); then
        reason=$(printf '%s\n' "$out" | grep -E '^(E|W):' | tail -n 1)
        echo "deps: cannot install $p: ${reason:-apt-get failed}" >&2
    fi
done
