#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ (clang, AddressSanitizer + UBSan) in build-fuzz and runs
# each for a short while on a copy of its seed corpus, so that the corpus in the repository is
# never rewritten. Any crash, sanitizer report, leak or timeout fails the run; the input that
# caused it is left in the work directory, whose path is printed.
#
# KS_FUZZ_SECONDS sets the time per target (default 20), KS_FUZZ_JOBS the build jobs
# (default 2), KS_FUZZ_TARGETS a space-separated subset of the targets.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build-fuzz"
seconds=${KS_FUZZ_SECONDS:-20}
jobs=${KS_FUZZ_JOBS:-2}
all_targets="fuzz_packet_reader fuzz_request_package fuzz_reply_package fuzz_xlink fuzz_hdfs
    fuzz_log_message_xml fuzz_config_reader fuzz_remote_service"
read -r -a targets <<<"$(echo ${KS_FUZZ_TARGETS:-$all_targets})"

command -v clang >/dev/null && command -v clang++ >/dev/null ||
    { echo "fuzz-smoke: clang and clang++ are needed" >&2; exit 1; }

# A configure that failed leaves a cache but no Makefile: configure again until one succeeded.
if [ ! -f "$build/CMakeCache.txt" ] || [ ! -f "$build/Makefile" ]; then
    CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DKS_FUZZ=ON -DKS_BUILD_TESTS=OFF \
        -DKS_BUILD_BENCHMARKS=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
out=$(cmake --build "$build" -j "$jobs" --target "${targets[@]}" 2>&1) || { echo "$out"; exit 1; }

work=$(mktemp -d "${TMPDIR:-/tmp}/ks-fuzz-smoke.XXXXXX")
failed=()
for target in "${targets[@]}"; do
    corpus="$work/$target/corpus"
    mkdir -p "$corpus"
    if [ -d "$root/fuzz/corpus/$target" ]; then
        cp "$root/fuzz/corpus/$target/"* "$corpus/"
    fi
    # Inputs that once failed, kept so that the fix stays in place.
    if [ -d "$root/fuzz/regressions/$target" ]; then
        cp "$root/fuzz/regressions/$target/"* "$corpus/"
    fi
    log="$work/$target/log"
    run=(-max_total_time="$seconds")
    echo "fuzz-smoke: $target for ${seconds}s"
    # A single input that takes more than 10 s counts as a hang; 2 GB as a memory blow-up.
    if (cd "$work/$target" && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
        LSAN_OPTIONS="suppressions=$root/fuzz/lsan.supp:print_suppressions=0" \
        UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        "$build/bin/$target" "${run[@]}" -timeout=10 -rss_limit_mb=2048 \
        -max_len=16384 -print_final_stats=1 "$corpus" >"$log" 2>&1); then
        grep -E '^stat::number_of_executed_units|^stat::average_exec_per_sec' "$log" |
            sed 's/^/    /'
    else
        echo "fuzz-smoke: $target FAILED; the last lines of $log:" >&2
        tail -n 40 "$log" >&2
        failed+=("$target")
    fi
done

if [ ${#failed[@]} -ne 0 ]; then
    echo "fuzz-smoke: failures in ${failed[*]} (inputs and logs in $work)" >&2
    exit 1
fi
rm -rf "$work"
echo "fuzz-smoke: all ${#targets[@]} targets ran without a finding"
