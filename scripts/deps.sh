#!/usr/bin/env bash
# Installs the Debian packages the build needs, only those that are missing.
# Usage: scripts/deps.sh [extra packages...]
set -euo pipefail

packages=(
    build-essential cmake ninja-build pkg-config git
    googletest libgtest-dev libbenchmark-dev
    libsimpleini-dev liblua5.1-0-dev libminizip-dev zlib1g-dev libxml2-dev
    libnuma-dev uuid-dev
    rsyslog
    "$@"
)

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$p")
    fi
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "installing: ${missing[*]}"
    SUDO=""
    [ "$(id -u)" -ne 0 ] && SUDO="sudo"
    $SUDO apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
