#!/usr/bin/env bash
# Installs the build tree into a fresh prefix and builds and runs a small consumer project
# against it, as a host program would.
set -euo pipefail
build_dir=$1
source_dir=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
test -f "$work/prefix/include/Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
test -f "$work/prefix/include/Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
cmake -S "$source_dir/consumer" -B "$work/build" -DCMAKE_PREFIX_PATH="$work/prefix" \
    -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$work/build" >/dev/null
"$work/build/consumer"
