#!/usr/bin/env bash
# Installs what is missing, builds, and runs the demo.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh"
exec "$root/build/bin/ks-demo" "$@"
