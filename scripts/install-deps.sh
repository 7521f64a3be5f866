#!/usr/bin/env bash
# The one place that names the Debian packages this project needs. Installs only what is
# missing, and says nothing when everything is there.
set -euo pipefail

packages=(
    build-essential cmake pkg-config git
    libboost-thread-dev libboost-chrono-dev libboost-date-time-dev libboost-system-dev
    libboost-filesystem-dev
    libxerces-c-dev libzmq3-dev cppzmq-dev libhdf5-dev libgcrypt20-dev libspdlog-dev
    libgtest-dev libgmock-dev libbenchmark-dev
)

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || { echo "install-deps: need root or sudo to install: ${missing[*]}" >&2; exit 1; }
    sudo_cmd=(sudo)
fi
echo "install-deps: installing ${missing[*]}"
"${sudo_cmd[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq
"${sudo_cmd[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >/dev/null
