#!/usr/bin/env bash
# Checks the LSF adapter (scripts/job-schedulers/lsf) against the fake LSF commands of
# Platform/RemoteComputation/TestSupport/fake-lsf, which run jobs on this host. One line per
# check; stops at the first failure with a non-zero exit code. Takes a few seconds.
# "A && B || fail ...": fail runs when either check is false, as meant.
# shellcheck disable=SC2015
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../../.." && pwd)
adapter=$root/scripts/job-schedulers/lsf
fakes=$root/Platform/RemoteComputation/TestSupport/fake-lsf
# shellcheck source=adapter-test-lib.sh
. "$here/adapter-test-lib.sh"

work=$(mktemp -d "${TMPDIR:-/tmp}/ks-lsf-adapter-test.XXXXXX")
cleanup() {
    # Fake jobs that still run are process groups of their own.
    local pidfile
    for pidfile in "$work"/lsf/jobs/*/pid; do
        [[ -e $pidfile && ! -e ${pidfile%/pid}/exit ]] || continue
        kill -TERM -- "-$(<"$pidfile")" 2>/dev/null || true
    done
    rm -rf -- "$work"
}
trap cleanup EXIT

export PATH="$fakes:$PATH" FAKE_LSF_DIR="$work/lsf" KS_JOB_STATE_DIR="$work/state"
unset KS_LSF_BSUB_OPTIONS FAKE_LSF_HOLD FAKE_LSF_DOWN FAKE_LSF_SUBMIT_ERROR
[[ $(command -v bsub) == "$fakes/bsub" ]] || fail "bsub in PATH is not the fake: $(command -v bsub)"

check_usage_errors

# Quoting: every argument reaches the program unchanged, through the job script and /bin/sh.
mkdir -p "$work/bin dir"
recorder="$work/bin dir/it's a \"recorder\""
write_recorder "$recorder" "$work/recorded"
printf '%s\0' "${quoting_args[@]}" >"$work/expected"
out_dir="$work/out dir/not yet there"
run_adapter submit --job-name 'round trip/1' --cores 4 --min-cores 2 --tmp "$out_dir" -- \
    "$recorder" "${quoting_args[@]}"
expect_job_line "round trip"
submit_out=$out
[[ $job == "$(<"$FAKE_LSF_DIR/last-job")" ]] || fail "JOB $job is not the number bsub gave ($(<"$FAKE_LSF_DIR/last-job"))" "$out"
pass "submit prints 'JOB $job', the number bsub gave"
wait_for_status "$job" DONE 10
cmp -s "$work/expected" "$work/recorded" ||
    fail "the program got other arguments than submitted" "expected: $(od -c "$work/expected" | head -20)" "got: $(od -c "$work/recorded" 2>&1 | head -20)"
pass "${#quoting_args[@]} arguments (quotes, \$, backquotes, newlines, tabs, empty, leading -) arrive byte for byte"
output_file="$out_dir/round_trip_1-$job.out"
[[ -f $output_file ]] || fail "no output file $output_file" "$(ls -la "$out_dir" 2>&1)"
grep -qx 'recorder: to stdout' "$output_file" && grep -qx 'recorder: to stderr' "$output_file" ||
    fail "the output file lacks the program's stdout or stderr" "$(cat "$output_file")"
grep -qF "$output_file" <<<"$submit_out" || fail "submit does not say where the output goes" "$submit_out"
pass "--tmp created; stdout and stderr in DIR/NAME-$job.out, which submit names"
[[ $(<"$FAKE_LSF_DIR/jobs/$job/slots") == 2,4 && $(<"$FAKE_LSF_DIR/jobs/$job/name") == round_trip_1 ]] ||
    fail "bsub got -n $(<"$FAKE_LSF_DIR/jobs/$job/slots") -J $(<"$FAKE_LSF_DIR/jobs/$job/name"), expected -n 2,4 -J round_trip_1"
[[ $(<"$KS_JOB_STATE_DIR/lsf-$job.end") == 0 ]] || fail "end file of job $job does not hold 0"
pass "bsub got -J round_trip_1 -n 2,4; end file lsf-$job.end holds 0"
done_job=$job

for min in 0 3; do
    run_adapter submit --job-name slots --cores 3 --min-cores "$min" --tmp "$work/out" -- /bin/true
    expect_job_line "slots"
    [[ $(<"$FAKE_LSF_DIR/jobs/$job/slots") == 3 ]] ||
        fail "--cores 3 --min-cores $min: bsub got -n $(<"$FAKE_LSF_DIR/jobs/$job/slots"), expected 3"
done
pass "--min-cores 0 or equal to --cores: bsub gets -n 3"

# Pending, then killed.
FAKE_LSF_HOLD=1 run_adapter submit --job-name held --cores 1 --tmp "$work/out" -- /bin/true
expect_job_line "held"
status_of "$job"
[[ $word == PENDING && $out == *PEND* ]] || fail "held job $job: $word, expected PENDING" "$out"
run_adapter kill "$job"
((rc == 0)) || fail "kill of pending job $job exited with $rc" "$out"
grep -qF "Job <$job> is being terminated" <<<"$out" || fail "kill does not pass on what bkill said" "$out"
status_of "$job"
[[ $word == EXIT ]] || fail "killed pending job $job: $word, expected EXIT" "$out"
pass "held job: PENDING, kill exits 0 with bkill's words, then EXIT"
run_adapter kill "$job"
((rc == 0)) && grep -qF "already finished" <<<"$out" && grep -qF "had already ended" <<<"$out" ||
    fail "kill of an ended job: exit code $rc, expected 0 with bkill's message" "$out"
pass "kill of an ended job succeeds and says it had already ended"

# Running, then done when the program ends.
write_waiter "$work/waiter" "$work/go" "$work/waiter.pid" 0
run_adapter submit --job-name waiter --cores 1 --tmp "$work/out" -- "$work/waiter"
expect_job_line "waiter"
status_of "$job"
[[ $word == RUNNING && $out == *RUN* ]] || fail "running job $job: $word, expected RUNNING" "$out"
touch "$work/go"
wait_for_status "$job" DONE 10
pass "RUNNING while the program runs, DONE when it ends with 0"
rm -f "$work/go"

# A program that fails.
write_waiter "$work/failer" "$work" "$work/failer.pid" 3
run_adapter submit --job-name failer --cores 1 --tmp "$work/out" -- "$work/failer"
expect_job_line "failer"
wait_for_status "$job" EXIT 10
[[ $(<"$KS_JOB_STATE_DIR/lsf-$job.end") == 3 ]] || fail "end file of job $job does not hold 3"
pass "program exit code 3: EXIT, end file holds 3"
failed_job=$job

# A running job killed: its program is stopped and its code recorded.
run_adapter submit --job-name victim --cores 1 --tmp "$work/out" -- "$work/waiter"
expect_job_line "victim"
wait_for_file "$work/waiter.pid" 5
wait_for_status "$job" RUNNING 5
victim_pid=$(<"$work/waiter.pid")
run_adapter kill "$job"
((rc == 0)) || fail "kill of running job $job exited with $rc" "$out"
wait_for_status "$job" EXIT 5
deadline=$((SECONDS + 5))
while kill -0 "$victim_pid" 2>/dev/null; do
    ((SECONDS < deadline)) || fail "the program of killed job $job (pid $victim_pid) still runs"
    sleep 0.1
done
wait_for_file "$KS_JOB_STATE_DIR/lsf-$job.end" 5
[[ $(<"$KS_JOB_STATE_DIR/lsf-$job.end") == 143 ]] ||
    fail "end file of killed job $job holds $(<"$KS_JOB_STATE_DIR/lsf-$job.end"), expected 143"
pass "running job killed: EXIT, program gone, end file holds 143 (SIGTERM)"

# Jobs that bjobs has forgotten: the end file decides.
rm -rf -- "$FAKE_LSF_DIR/jobs/$done_job" "$FAKE_LSF_DIR/jobs/$failed_job"
status_of "$done_job"
[[ $word == DONE && $out == *"exit code 0"* ]] || fail "forgotten job $done_job: $word, expected DONE" "$out"
status_of "$failed_job"
[[ $word == EXIT && $out == *"exit code 3"* ]] || fail "forgotten job $failed_job: $word, expected EXIT" "$out"
pass "jobs bjobs no longer knows: DONE (end file 0) and EXIT (end file 3)"

status_of 4242
[[ $word == UNKNOWN ]] || fail "unknown job 4242: $word, expected UNKNOWN" "$out"
pass "unknown job: UNKNOWN, exit code 0"
run_adapter kill 4242
((rc == 0)) && grep -qF "No matching job found" <<<"$out" ||
    fail "kill of an unknown job: exit code $rc, expected 0 with bkill's message" "$out"
pass "kill of an unknown job succeeds with bkill's message"

FAKE_LSF_DOWN=1 run_adapter status "$done_job"
((rc != 0)) && grep -qF "LSF is down; please wait" <<<"$out" && ! grep -q '^STATUS' <<<"$out" ||
    fail "status while LSF is down: exit code $rc, expected non-zero with bjobs' message" "$out"
FAKE_LSF_DOWN=1 run_adapter kill "$done_job"
((rc != 0)) && grep -qF "LSF is down; please wait" <<<"$out" ||
    fail "kill while LSF is down: exit code $rc, expected non-zero with bkill's message" "$out"
pass "LSF down: status and kill fail with LSF's message"

FAKE_LSF_SUBMIT_ERROR="Bad user ID. Job not submitted." run_adapter submit --job-name rejected \
    --cores 1 --tmp "$work/out" -- /bin/true
((rc != 0)) && grep -qF "Bad user ID. Job not submitted." <<<"$out" && ! grep -q '^JOB' <<<"$out" ||
    fail "rejected submit: exit code $rc, expected non-zero with bsub's message and no JOB line" "$out"
KS_LSF_BSUB_OPTIONS="-Z" run_adapter submit --job-name badopt --cores 1 --tmp "$work/out" -- /bin/true
((rc != 0)) && grep -qF "illegal option" <<<"$out" ||
    fail "submit with a bad bsub option: exit code $rc, expected non-zero with bsub's message" "$out"
pass "rejected submit fails with bsub's message and no JOB line"

# Users' options reach bsub: a queue, and -H (held, PSUSP).
KS_LSF_BSUB_OPTIONS=" -q short
  -H " run_adapter submit --job-name opts --cores 1 --tmp "$work/out" -- /bin/true
expect_job_line "options"
[[ $(<"$FAKE_LSF_DIR/jobs/$job/queue") == short && $out == *"queue short"* ]] ||
    fail "KS_LSF_BSUB_OPTIONS -q short did not reach bsub" "$out"
status_of "$job"
[[ $word == PENDING && $out == *PSUSP* ]] || fail "job held with -H: $word, expected PENDING (PSUSP)" "$out"
run_adapter kill "$job"
((rc == 0)) || fail "kill of held job $job exited with $rc" "$out"
pass "KS_LSF_BSUB_OPTIONS (-q short -H, split on whitespace) reach bsub; PSUSP is PENDING"

# The state directory is made absolute at submit and baked into the job script.
(cd "$work" && KS_JOB_STATE_DIR=relative-state run_adapter submit --job-name rel --cores 1 \
    --tmp out -- /bin/true && expect_job_line "relative" && printf '%s\n' "$job" >"$work/rel.job")
job=$(<"$work/rel.job")
grep -qF "'$work/relative-state'/lsf-" "$FAKE_LSF_DIR/jobs/$job/script" ||
    fail "the job script does not name the absolute state directory" "$(cat "$FAKE_LSF_DIR/jobs/$job/script")"
wait_for_status "$job" DONE 10
[[ -f $work/relative-state/lsf-$job.end && -f $work/out/rel-$job.out ]] ||
    fail "relative KS_JOB_STATE_DIR or --tmp not resolved against the submit directory"
[[ $(<"$FAKE_LSF_DIR/jobs/$job/output-path") == "$work/out/rel-$job.out" ]] ||
    fail "bsub -o got $(<"$FAKE_LSF_DIR/jobs/$job/output-path"), expected $work/out/rel-$job.out"
pass "relative KS_JOB_STATE_DIR and --tmp resolved to absolute paths at submit"

# Concurrent submissions get distinct numbers.
pids=()
for i in 1 2 3 4; do
    timeout 30 "$adapter" submit --job-name "c$i" --cores 1 --tmp "$work/out" -- /bin/true \
        >"$work/concurrent-$i" 2>&1 &
    pids+=($!)
done
for pid in "${pids[@]}"; do wait "$pid" || fail "a concurrent submit failed" "$(cat "$work"/concurrent-*)"; done
numbers=$(cat "$work"/concurrent-* | sed -n 's/^JOB //p' | sort -u | wc -l)
((numbers == 4)) || fail "4 concurrent submits gave $numbers distinct job numbers" "$(cat "$work"/concurrent-*)"
pass "4 concurrent submits: 4 distinct job numbers"

echo "All LSF adapter checks passed"
