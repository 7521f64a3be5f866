#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite. Exits non-zero on any failure.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh"
cd "$root/build"
ctest --output-on-failure -j "${KS_TEST_JOBS:-2}" "$@"
