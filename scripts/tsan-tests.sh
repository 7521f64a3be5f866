#!/usr/bin/env bash
# Builds the library, the service interfaces, their test programs and the programs that the tests
# start (ks-request-server, ks-remote-service) with ThreadSanitizer in build-tsan, and runs every
# test of RequestHandlingTests and ServiceInterfacesTests there: servers, clients, reply handling
# and delivery, heartbeats, file transfer, worker pools, threads and watchdogs. The processes that
# the tests start are instrumented too. Every process writes its reports to one directory; any
# report fails the run, even one from a child whose exit code no test looks at, and the reports
# are printed. Suppressions (third-party libraries only) are in scripts/tsan.supp.
#
# KS_TEST_JOBS sets the parallel tests (default 2), KS_JOBS the build jobs (default: all cores).
# Arguments go to ctest.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build-tsan"
jobs=${KS_TEST_JOBS:-2}
build_jobs=${KS_JOBS:-$(nproc)}

# ThreadSanitizer needs its fixed memory layout; on kernels with many bits of mmap randomness
# (vm.mmap_rnd_bits above 28) it stops with "unexpected memory mapping". A process whose address
# space is not randomised passes that on to everything it starts, the build's test discovery
# included, so then the whole stage runs under `setarch -R`.
run=()
probe_dir=$(mktemp -d "${TMPDIR:-/tmp}/ks-tsan-probe.XXXXXX")
trap 'rm -rf "$probe_dir"' EXIT
echo 'int main(void) { return 0; }' >"$probe_dir/probe.c"
cc -fsanitize=thread -o "$probe_dir/probe" "$probe_dir/probe.c" ||
    { echo "tsan-tests: the C compiler cannot build with -fsanitize=thread" >&2; exit 1; }
if ! "$probe_dir/probe" >"$probe_dir/out" 2>&1; then
    if setarch "$(uname -m)" -R "$probe_dir/probe" >/dev/null 2>&1; then
        echo "ThreadSanitizer needs a fixed address layout here: running under setarch -R"
        run=(setarch "$(uname -m)" -R)
    else
        echo "tsan-tests: a ThreadSanitizer program cannot run on this machine, not even under" \
             "setarch -R (try: sysctl vm.mmap_rnd_bits=28):" >&2
        cat "$probe_dir/out" >&2
        exit 1
    fi
fi

# A configure that failed leaves a cache but no Makefile: configure again until one succeeded.
# -O1 keeps the instrumented tests fast enough without losing the stacks.
if [ ! -f "$build/CMakeCache.txt" ] || [ ! -f "$build/Makefile" ]; then
    cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g" \
        -DCMAKE_C_FLAGS_DEBUG="-O1 -g" -DKS_TSAN=ON -DKS_BUILD_BENCHMARKS=OFF \
        -DKS_WARNINGS_AS_ERRORS=ON >/dev/null
fi
out=$("${run[@]}" cmake --build "$build" -j "$build_jobs" --target RequestHandlingTests \
    ServiceInterfacesTests ks-request-server ks-remote-service 2>&1) || { echo "$out"; exit 1; }

# Every test of the two test programs; the build tree also lists the tests of programs that are
# not built here.
suites=$(for program in RequestHandlingTests ServiceInterfacesTests; do
    "${run[@]}" "$build/bin/$program" --gtest_list_tests | sed -n 's|^\([A-Za-z0-9_]*\)[./].*|\1|p'
done | sort -u | paste -sd'|')
[ -n "$suites" ] || { echo "tsan-tests: no tests found in $build/bin" >&2; exit 1; }

reports="$build/tsan-reports"
rm -rf "$reports"
mkdir -p "$reports"
status=0
(cd "$build" &&
    TSAN_OPTIONS="log_path=$reports/tsan suppressions=$root/scripts/tsan.supp second_deadlock_stack=1 halt_on_error=0" \
    "${run[@]}" ctest --output-on-failure -j "$jobs" -E Installed -LE 'slurm|long' -R "^($suites)[./]" "$@") ||
    status=$?
count=$(find "$reports" -type f | wc -l)
if [ "$count" != 0 ]; then
    for report in "$reports"/*; do
        echo "==== $report"
        cat "$report"
    done
    echo "tsan-tests: ThreadSanitizer reports in $count processes (above," \
         "and in $reports)" >&2
    exit 1
fi
if [ "$status" != 0 ]; then
    echo "tsan-tests: tests failed under ThreadSanitizer" >&2
    exit "$status"
fi
echo "ThreadSanitizer stage: no reports"
