# shellcheck shell=bash
# Helpers shared by the job scheduler adapter tests; sourced, with `adapter` (the adapter's path)
# and `work` (a scratch directory) set by the test.
# shellcheck disable=SC2154 # adapter and work come from the test

pass() { printf 'ok    %s\n' "$*"; }

fail() {
    printf 'FAIL  %s\n' "$1" >&2
    shift
    (($# == 0)) || printf '      %s\n' "$@" >&2
    exit 1
}

# Runs the adapter with a time limit; sets `out` (stdout and stderr, as the library reads them),
# `err` (stderr alone) and `rc`.
run_adapter() {
    rc=0
    timeout 30 "$adapter" "$@" >"$work/adapter.out" 2>"$work/adapter.err" || rc=$?
    out=$(cat "$work/adapter.out" "$work/adapter.err")
    err=$(<"$work/adapter.err")
}

# Sets `job` from the output of a submit that must have worked: exactly one line "JOB <n>".
expect_job_line() {
    local what=$1 lines
    ((rc == 0)) || fail "$what: submit exited with $rc" "$out"
    lines=$(grep -c '^JOB' <<<"$out" || true)
    ((lines == 1)) || fail "$what: expected exactly one line starting with JOB, got $lines" "$out"
    job=$(sed -n 's/^JOB \([1-9][0-9]*\)$/\1/p' <<<"$out")
    [[ -n $job ]] || fail "$what: the JOB line is not 'JOB <number>'" "$out"
}

# Sets `word` from `status <job>`, which must work and print exactly one valid STATUS line.
status_of() {
    local lines
    run_adapter status "$1"
    ((rc == 0)) || fail "status $1 exited with $rc" "$out"
    lines=$(grep -c '^STATUS' <<<"$out" || true)
    ((lines == 1)) || fail "status $1: expected exactly one line starting with STATUS, got $lines" "$out"
    word=$(sed -n -E 's/^STATUS (PENDING|RUNNING|DONE|EXIT|UNKNOWN)$/\1/p' <<<"$out")
    [[ -n $word ]] || fail "status $1: the STATUS line is not 'STATUS <PENDING|RUNNING|DONE|EXIT|UNKNOWN>'" "$out"
}

# Polls until job $1 has status $2, for at most $3 seconds.
wait_for_status() {
    local job=$1 want=$2 deadline=$((SECONDS + $3))
    while :; do
        status_of "$job"
        [[ $word != "$want" ]] || return 0
        ((SECONDS < deadline)) || fail "job $job: status still $word after $3 s, expected $want" "$out"
        sleep 0.2
    done
}

# Polls until job $1 has status $2 and its status output shows $3, for at most $4 seconds: right
# after its program has ended a job may still be in a passing state of the scheduler's own
# (Slurm's COMPLETING) before the final one.
wait_for_status_showing() {
    local job=$1 want=$2 shown=$3 deadline=$((SECONDS + $4))
    while :; do
        status_of "$job"
        [[ $word != "$want" || $out != *"$shown"* ]] || return 0
        ((SECONDS < deadline)) ||
            fail "job $job: status $word after $4 s, expected $want showing the scheduler's $shown" "$out"
        sleep 0.2
    done
}

# Polls until file $1 exists, for at most $2 seconds.
wait_for_file() {
    local deadline=$((SECONDS + $2))
    until [[ -e $1 ]]; do
        ((SECONDS < deadline)) || fail "no $1 after $2 s"
        sleep 0.1
    done
}

# Arguments that a shell would change if the adapter quoted them wrongly.
# shellcheck disable=SC2016,SC1003,SC2034 # literal on purpose; used by the tests
quoting_args=(
    "two words" "" $'line one\nline two' '$HOME' '${HOME}' '`id`' '$(id)' 'a;b' 'a&b' 'a|b'
    '"q"' "'s'" "it's" "''" '*' '?' '[a]' '~' 'back\slash' '\' '\n' '-x' '--' '-' '--hold'
    $'tab\there' $'\n' $'ends with newline\n' '%j %J %%' '#not a comment' $'x\n#SBATCH --hold'
    $'x\n#BSUB -H' 'ünï cödé' '  leading and trailing  ' '!' '<in >out'
)

# Writes an executable at $1 that records its arguments NUL-terminated in $2, and writes a line
# to stdout and one to stderr.
write_recorder() {
    {
        printf '#!/bin/bash\n'
        printf 'printf "%%s\\0" "$@" >%q\n' "$2"
        printf 'echo "recorder: to stdout"\n'
        printf 'echo "recorder: to stderr" >&2\n'
    } >"$1"
    chmod +x "$1"
}

# Writes an executable at $1 that waits (at most 20 s) for file $2, records its pid in $3 and
# exits with code $4.
write_waiter() {
    {
        printf '#!/bin/bash\n'
        printf 'echo $$ >%q\n' "$3"
        printf 'for ((i = 0; i < 200; i++)); do [[ -e %q ]] && exit %d; sleep 0.1; done\n' "$2" "$4"
        printf 'exit 99\n'
    } >"$1"
    chmod +x "$1"
}

# Each malformed call must exit with 2 and say something on stderr.
check_usage_errors() {
    local tmp=$work/usage-tmp
    local -a cases=(
        ''
        'frobnicate'
        'submit'
        'submit --job-name n --cores 1 --tmp T /bin/true'
        'submit --job-name n --cores 1 --tmp T --'
        'submit --job-name n --cores 1 --tmp'
        'submit --job-name n --cores --tmp T -- /bin/true'
        'submit --job-name n --cores two --tmp T -- /bin/true'
        'submit --job-name n --cores 0 --tmp T -- /bin/true'
        'submit --job-name n --cores 2 --min-cores 3 --tmp T -- /bin/true'
        'submit --job-name n --cores 2 --min-cores x --tmp T -- /bin/true'
        'submit --cores 1 --tmp T -- /bin/true'
        'submit --job-name n --cores 1 -- /bin/true'
        'submit --job-name n --cores 1 --bogus 1 --tmp T -- /bin/true'
        'status'
        'status abc'
        'status 12 13'
        'status -1'
        'kill'
        'kill 1x'
    )
    local c args
    for c in "${cases[@]}"; do
        read -r -a args <<<"${c//T/$tmp}"
        run_adapter "${args[@]}"
        ((rc == 2)) || fail "usage error '$c': exit code $rc, expected 2" "$out"
        [[ -n $err ]] || fail "usage error '$c': nothing on stderr"
    done
    [[ ! -e $tmp ]] || fail "a usage error created the --tmp directory $tmp"
    pass "usage errors exit with 2 and a message on stderr (${#cases[@]} cases)"
}
