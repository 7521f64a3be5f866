#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite; then runs the message-model and
# round-trip tests again in an AddressSanitizer/LeakSanitizer build, where memory ownership
# mistakes show.
# Exits non-zero on any failure. KS_SKIP_SANITIZER=1 skips the second stage.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
jobs=${KS_TEST_JOBS:-2}
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh"
(cd "$root/build" && ctest --output-on-failure -j "$jobs" "$@")

if [ "${KS_SKIP_SANITIZER:-0}" != "1" ]; then
    asan="$root/build-asan"
    if [ ! -f "$asan/CMakeCache.txt" ]; then
        cmake -S "$root" -B "$asan" -DCMAKE_BUILD_TYPE=Debug -DKS_SANITIZE=ON \
            -DKS_BUILD_BENCHMARKS=OFF -DKS_WARNINGS_AS_ERRORS=ON >/dev/null
    fi
    out=$(cmake --build "$asan" -j "$(nproc)" --target RequestHandlingTests ServiceInterfacesTests ks-request-server 2>&1) \
        || { echo "$out"; exit 1; }
    echo "Sanitizer run (AddressSanitizer, LeakSanitizer, UBSan): message model and round trips"
    (cd "$asan" && ASAN_OPTIONS=detect_leaks=1 ctest --output-on-failure -j "$jobs" -E Installed \
        -R "XLink|KSData|Attachment|HierarchicalDataFile|Transcod|Package|Reply|Request(Encoder|Handler|Test)|XmlRequest|LocalRequestClient|HostAndUserId|UnsharedTmpDir|LogMessageXml|Schema|XTagger|XmlUtils|MessageValidation|RoundTrip|Inbound|HandleRequestTask|ServerRequestHandler|Callback|TcpRequestClient|QueuedJob")
fi
