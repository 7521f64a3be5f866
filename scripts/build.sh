#!/usr/bin/env bash
# Configures (once) and builds the Release tree in build/. Quiet when nothing changed.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${KS_BUILD_DIR:-$root/build}
jobs=${KS_JOBS:-$(nproc)}
# A configure that failed (a missing package, say) leaves a cache but no build files: configure
# again until it has succeeded once.
if [ ! -f "$build_dir/CMakeCache.txt" ] || [ ! -f "$build_dir/Makefile" ]; then
    cmake -S "$root" -B "$build_dir" -DCMAKE_BUILD_TYPE=Release -DKS_WARNINGS_AS_ERRORS=ON "$@" >/dev/null
fi
out=$(cmake --build "$build_dir" -j "$jobs" 2>&1) || { echo "$out"; exit 1; }
echo "$out" | grep -E "warning|error" || true
