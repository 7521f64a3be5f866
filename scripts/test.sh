#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite; then runs the message-model and
# round-trip tests again in an AddressSanitizer/LeakSanitizer build, where memory ownership
# mistakes show.
#
# The tests labelled "slurm" need a Slurm cluster: this script starts a one-node cluster on this
# machine (as root, with shared/tools/slurm beside the repository, or KS_SLURM_TOOLS), and stops
# it at the end if it was not running before. A cluster that cannot start fails the run.
# KS_SLURM=0 leaves those tests out, and says so. KS_SKIP_SANITIZER=1 skips the second stage.
# A third stage runs the tests of the library and the service interfaces, with the processes they
# start, in a ThreadSanitizer build (scripts/tsan-tests.sh); any report fails it. KS_SKIP_TSAN=1
# skips it.
# A last stage runs every fuzz target briefly (scripts/fuzz-smoke.sh); KS_SKIP_FUZZ=1 skips it,
# and so does a machine without clang.
# Exits non-zero on any failure.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
jobs=${KS_TEST_JOBS:-2}
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh"

ctest_args=()
if [ "${KS_SLURM:-1}" = "0" ]; then
    echo "Slurm tests left out (KS_SLURM=0)"
    ctest_args=(-LE slurm)
else
    tools=${KS_SLURM_TOOLS:-$root/../shared/tools/slurm}
    sched_dir=${SCHED_DIR:-${TMPDIR:-/var/tmp}/ks-slurm}
    if [ ! -x "$tools/start-local-slurm.sh" ]; then
        echo "test.sh: no Slurm test cluster tools at $tools (set KS_SLURM_TOOLS, or KS_SLURM=0" \
             "to leave the Slurm tests out)" >&2
        exit 1
    fi
    running() { [ -s "$1" ] && kill -0 "$(cat "$1")" 2>/dev/null; }
    was_running=0
    running "$sched_dir/run/slurmctld.pid" && was_running=1
    echo "Starting the Slurm test cluster (one node, this machine)..."
    if ! "$tools/start-local-slurm.sh"; then
        echo "test.sh: the Slurm test cluster could not start (see $sched_dir/log); the Slurm" \
             "tests cannot run" >&2
        exit 1
    fi
    if [ "$was_running" = 0 ]; then
        trap '"$tools/stop-local-slurm.sh" || true' EXIT
    fi
    # shellcheck disable=SC1091
    . "$sched_dir/env.sh"
    export SLURM_CONF
fi

(cd "$root/build" && ctest --output-on-failure -j "$jobs" "${ctest_args[@]}" "$@")

if [ "${KS_SKIP_SANITIZER:-0}" != "1" ]; then
    asan="$root/build-asan"
    if [ ! -f "$asan/CMakeCache.txt" ] || [ ! -f "$asan/Makefile" ]; then
        cmake -S "$root" -B "$asan" -DCMAKE_BUILD_TYPE=Debug -DKS_SANITIZE=ON \
            -DKS_BUILD_BENCHMARKS=OFF -DKS_WARNINGS_AS_ERRORS=ON >/dev/null
    fi
    out=$(cmake --build "$asan" -j "$(nproc)" --target RequestHandlingTests ServiceInterfacesTests ks-request-server 2>&1) \
        || { echo "$out"; exit 1; }
    echo "Sanitizer run (AddressSanitizer, LeakSanitizer, UBSan): message model, round trips and starters"
    (cd "$asan" && ASAN_OPTIONS=detect_leaks=1 ctest --output-on-failure -j "$jobs" -E Installed -LE slurm \
        -R "XLink|KSData|Attachment|HierarchicalDataFile|Transcod|Package|Reply|Request(Encoder|Handler|Test)|XmlRequest|LocalRequestClient|HostAndUserId|UnsharedTmpDir|LogMessageXml|Schema|XTagger|XmlUtils|MessageValidation|RoundTrip|Inbound|HandleRequestTask|ServerRequestHandler|Callback|TcpRequestClient|QueuedJob|Starter|JobSchedulerCommands|RemoteService(Key|Protocol)|IsolatedCheck|MemoryAdvice|XercesPlatform|ConnectionWatch|UniqueID|LargeBlockCache|DeferredCloser|SocketPacket|RequestXmlHelper")
fi

# Third stage: data races, lock order and thread lifetime, under ThreadSanitizer.
if [ "${KS_SKIP_TSAN:-0}" = "1" ]; then
    echo "ThreadSanitizer stage skipped (KS_SKIP_TSAN=1)"
else
    echo "ThreadSanitizer run: server, clients, replies, heartbeats, file transfer, worker pools"
    "$root/scripts/tsan-tests.sh"
fi

# Last stage: a short run of every fuzz target (scripts/fuzz-smoke.sh). KS_SKIP_FUZZ=1 skips it.
if [ "${KS_SKIP_FUZZ:-0}" = "1" ]; then
    echo "Fuzz smoke stage skipped (KS_SKIP_FUZZ=1)"
elif ! command -v clang >/dev/null || ! command -v clang++ >/dev/null; then
    echo "Fuzz smoke stage skipped: clang/clang++ not found (the fuzz targets need clang's libFuzzer)"
else
    echo "Fuzz smoke stage (libFuzzer, AddressSanitizer, UBSan)"
    "$root/scripts/fuzz-smoke.sh"
fi
