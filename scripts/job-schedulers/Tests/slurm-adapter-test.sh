#!/usr/bin/env bash
# Checks the Slurm adapter (scripts/job-schedulers/slurm) against the Slurm cluster that
# SLURM_CONF points to, which must run its jobs on this host (as the one-node test cluster of
# shared/tools/slurm does). One line per check; stops at the first failure with a non-zero exit
# code. Cancels the jobs it submitted when it ends. Takes about 10 s.
# "A && B || fail ...": fail runs when either check is false, as meant.
# shellcheck disable=SC2015
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../../.." && pwd)
adapter=$root/scripts/job-schedulers/slurm
# shellcheck source=adapter-test-lib.sh
. "$here/adapter-test-lib.sh"

[[ -n ${SLURM_CONF:-} ]] ||
    fail "SLURM_CONF is not set: this test needs a running Slurm (e.g. start-local-slurm.sh, then source its env.sh)"
command -v sinfo >/dev/null || fail "sinfo is not in PATH: the Slurm client commands are missing"
sinfo_out=$(timeout 20 sinfo -h 2>&1) || fail "sinfo cannot reach the Slurm controller of $SLURM_CONF" "$sinfo_out"

work=$(mktemp -d "${TMPDIR:-/tmp}/ks-slurm-adapter-test.XXXXXX")
submitted=()
cleanup() {
    if ((${#submitted[@]})); then
        timeout 20 scancel "${submitted[@]}" 2>/dev/null || true
    fi
    rm -rf -- "$work"
}
trap cleanup EXIT

export KS_JOB_STATE_DIR="$work/state"
unset KS_SLURM_SBATCH_OPTIONS

# Submits through the adapter (arguments after the first: what follows "submit") and sets `job`.
submit() {
    local what=$1
    shift
    run_adapter submit "$@"
    if ((rc == 0)) && [[ $out =~ (^|$'\n')JOB\ ([0-9]+) ]]; then submitted+=("${BASH_REMATCH[2]}"); fi
    expect_job_line "$what"
    submit_out=$out
}

check_usage_errors

# Quoting: every argument reaches the program unchanged, through sbatch and the job's /bin/sh.
mkdir -p "$work/bin dir"
recorder="$work/bin dir/it's a \"recorder\""
write_recorder "$recorder" "$work/recorded"
printf '%s\0' "${quoting_args[@]}" >"$work/expected"
out_dir="$work/out dir/not yet there"
submit "round trip" --job-name 'round trip/1' --cores 1 --min-cores 1 --tmp "$out_dir" -- \
    "$recorder" "${quoting_args[@]}"
pass "submit prints 'JOB $job'"
wait_for_status "$job" DONE 20
cmp -s "$work/expected" "$work/recorded" ||
    fail "the program got other arguments than submitted" "expected: $(od -c "$work/expected" | head -20)" "got: $(od -c "$work/recorded" 2>&1 | head -20)"
pass "${#quoting_args[@]} arguments (quotes, \$, backquotes, newlines, tabs, empty, leading -, #SBATCH) arrive byte for byte"
output_file="$out_dir/round_trip_1-$job.out"
[[ -f $output_file ]] || fail "no output file $output_file" "$(ls -la "$out_dir" 2>&1)"
grep -qx 'recorder: to stdout' "$output_file" && grep -qx 'recorder: to stderr' "$output_file" ||
    fail "the output file lacks the program's stdout or stderr" "$(cat "$output_file")"
grep -qF "$output_file" <<<"$submit_out" || fail "submit does not say where the output goes" "$submit_out"
name=$(timeout 20 squeue -h -t all -j "$job" -o %j)
[[ $name == round_trip_1 ]] || fail "Slurm job name '$name', expected round_trip_1"
pass "--tmp created; stdout and stderr in DIR/NAME-$job.out, which submit names; job name round_trip_1"
[[ $(<"$KS_JOB_STATE_DIR/slurm-$job.end") == 0 ]] || fail "end file of job $job does not hold 0"
pass "end file slurm-$job.end holds 0"
done_job=$job

# Pending (held), then cancelled.
KS_SLURM_SBATCH_OPTIONS="--hold" submit "held" --job-name held --cores 2 --min-cores 1 \
    --tmp "$work/out" -- /bin/true
status_of "$job"
[[ $word == PENDING && $out == *"Slurm job $job: PENDING"* ]] || fail "held job $job: $word, expected PENDING" "$out"
cpus=$(timeout 20 squeue -h -t all -j "$job" -o %C)
[[ $cpus == 2 ]] || fail "job $job submitted with --cores 2 asks Slurm for $cpus CPUs"
run_adapter kill "$job"
((rc == 0)) || fail "kill of pending job $job exited with $rc" "$out"
wait_for_status_showing "$job" EXIT CANCELLED 10
pass "held job (KS_SLURM_SBATCH_OPTIONS=--hold, --cores 2: 2 CPUs): PENDING, kill exits 0, then EXIT (CANCELLED)"

# Running, then done when the program ends.
write_waiter "$work/waiter" "$work/go" "$work/waiter.pid" 0
submit "waiter" --job-name waiter --cores 1 --tmp "$work/out" -- "$work/waiter"
wait_for_status "$job" RUNNING 20
touch "$work/go"
wait_for_status "$job" DONE 20
pass "RUNNING while the program runs, DONE when it ends with 0"
rm -f "$work/go" "$work/waiter.pid"

# A running job cancelled: its program is stopped and its code recorded.
submit "victim" --job-name victim --cores 1 --tmp "$work/out" -- "$work/waiter"
wait_for_status "$job" RUNNING 20
wait_for_file "$work/waiter.pid" 10
run_adapter kill "$job"
((rc == 0)) && [[ $out == *"Cancelled Slurm job $job"* ]] || fail "kill of running job $job: exit code $rc" "$out"
wait_for_status "$job" EXIT 15
wait_for_file "$KS_JOB_STATE_DIR/slurm-$job.end" 10
[[ $(<"$KS_JOB_STATE_DIR/slurm-$job.end") == 143 ]] ||
    fail "end file of cancelled job $job holds $(<"$KS_JOB_STATE_DIR/slurm-$job.end"), expected 143"
pass "running job cancelled: EXIT (CANCELLED), end file holds 143 (SIGTERM)"

# A program that does not exist.
submit "missing program" --job-name missing --cores 1 --tmp "$work/out" -- "$work/no such program"
wait_for_status_showing "$job" EXIT FAILED 15
[[ $(<"$KS_JOB_STATE_DIR/slurm-$job.end") == 127 ]] || fail "end file of job $job does not hold 127"
pass "missing program: EXIT (FAILED), end file holds 127"

status_of 999999
[[ $word == UNKNOWN ]] || fail "unknown job 999999: $word, expected UNKNOWN" "$out"
pass "unknown job: UNKNOWN, exit code 0"

# Jobs the controller has forgotten: the end file decides.
printf '0\n' >"$KS_JOB_STATE_DIR/slurm-999998.end"
status_of 999998
[[ $word == DONE && $out == *"exit code 0"* ]] || fail "forgotten job with end file 0: $word, expected DONE" "$out"
printf '5\n' >"$KS_JOB_STATE_DIR/slurm-999998.end"
status_of 999998
[[ $word == EXIT && $out == *"exit code 5"* ]] || fail "forgotten job with end file 5: $word, expected EXIT" "$out"
pass "jobs Slurm does not know: DONE (end file 0) and EXIT (end file 5)"

run_adapter kill "$done_job"
((rc == 0)) && [[ $out == *"already ended"* ]] || fail "kill of ended job $done_job: exit code $rc" "$out"
run_adapter kill 999999
((rc == 0)) && [[ $out == *"does not know"* ]] || fail "kill of unknown job 999999: exit code $rc" "$out"
pass "kill of an ended or unknown job: exit code 0, saying so"

KS_SLURM_SBATCH_OPTIONS="--partition=ks-no-such-partition" run_adapter submit --job-name rejected \
    --cores 1 --tmp "$work/out" -- /bin/true
((rc != 0)) && grep -qi "sbatch: error:.*partition" <<<"$out" && ! grep -q '^JOB' <<<"$out" ||
    fail "rejected submit: exit code $rc, expected non-zero with sbatch's message and no JOB line" "$out"
pass "rejected submit (unknown partition) fails with sbatch's message and no JOB line"

# A controller that cannot be reached: the same configuration with a closed port.
grep -vi '^[[:space:]]*\(SlurmctldPort\|MessageTimeout\)[[:space:]]*=' "$SLURM_CONF" >"$work/unreachable.conf"
printf 'SlurmctldPort=1\nMessageTimeout=2\n' >>"$work/unreachable.conf"
SLURM_CONF=$work/unreachable.conf run_adapter status "$done_job"
((rc != 0)) && grep -qF "Unable to contact slurm controller" <<<"$out" && ! grep -q '^STATUS' <<<"$out" ||
    fail "status without a controller: exit code $rc, expected non-zero with squeue's message" "$out"
SLURM_CONF=$work/unreachable.conf run_adapter kill "$done_job"
((rc != 0)) && grep -qF "Unable to contact slurm controller" <<<"$out" ||
    fail "kill without a controller: exit code $rc, expected non-zero with scancel's message" "$out"
SLURM_CONF=$work/unreachable.conf run_adapter submit --job-name nocontroller --cores 1 \
    --tmp "$work/out" -- /bin/true
((rc != 0)) && grep -qF "Unable to contact slurm controller" <<<"$out" && ! grep -q '^JOB' <<<"$out" ||
    fail "submit without a controller: exit code $rc, expected non-zero with sbatch's message" "$out"
pass "controller unreachable: status, kill and submit fail with Slurm's message"

echo "All Slurm adapter checks passed"
