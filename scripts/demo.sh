#!/usr/bin/env bash
# Installs what is missing, builds, and runs the demo: ks-demo starts ks-request-server and walks
# through what a client does with it (ping, status, test requests with live progress, a 200 MB
# file both ways, a million values, an abort, a clean shutdown). Its temporary files go to a
# directory under $TMPDIR (or /tmp) that it removes at the end. Exits non-zero when a step failed.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh"
exec "$root/build/bin/ks-demo" "$@"
