#!/usr/bin/env bash
# Four clients doing NOP round trips for a while inside a network namespace of their own, with
# net.ipv4.tcp_tw_reuse=0 as traffic between two real hosts gets it: no connect may fail, and
# the TIME_WAIT of the connections must stay with the accepting sides (the server's port and the
# clients' own reply ports), not pile up on the connecting sides' ephemeral ports.
#   port-churn-test.sh BIN_DIR [SECONDS]
# Exit 77 (skipped) without root or network namespaces.
set -euo pipefail
bin=$(cd "$1" && pwd)
seconds=${2:-60}
if [ "$(id -u)" != 0 ] || ! unshare --net true 2>/dev/null; then
    echo "port churn test skipped: needs root and unshare --net"
    exit 77
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export KS_LOG_LEVEL=WARN KS_PATH_TMP="$work/tmp"

unshare --net bash -s "$bin" "$seconds" "$work" <<'EOF'
set -euo pipefail
bin=$1 seconds=$2 work=$3
ip link set lo up
sysctl -qw net.ipv4.tcp_tw_reuse=0
"$bin/ks-request-server" >"$work/server.out" 2>"$work/server.err" &
server=$!
trap 'kill $server 2>/dev/null || true' EXIT
for _ in $(seq 100); do grep -q '^PORT ' "$work/server.out" && break; sleep 0.1; done
port=$(sed -n 's/^PORT //p' "$work/server.out")
[ -n "$port" ] || { echo "server did not start"; cat "$work/server.err"; exit 1; }
clients=()
for i in 1 2 3 4; do
    "$bin/NopChurn" "127.0.0.1:$port" "$seconds" 1 >"$work/client$i.out" 2>"$work/client$i.err" &
    clients+=($!)
done
failed=0
for pid in "${clients[@]}"; do wait "$pid" || failed=1; done
accepting=" $port "
for i in 1 2 3 4; do
    accepting+="$(sed -n 's/^CLIENT_PORT //p' "$work/client$i.out") "
done
total=0
for i in 1 2 3 4; do
    echo "client $i: $(grep -h '^REQUESTS\|^FIRST_ERROR' "$work/client$i.out" | tr '\n' ' ')"
    total=$((total + $(sed -n 's/^REQUESTS \([0-9]*\) .*/\1/p' "$work/client$i.out")))
done
# Local address is the fourth column of ss; its port says which side the socket belongs to.
on_accepting=0 on_connecting=0
while read -r local; do
    if [[ "$accepting" == *" ${local##*:} "* ]]; then
        on_accepting=$((on_accepting + 1))
    else
        on_connecting=$((on_connecting + 1))
    fi
done < <(ss -Htan state time-wait | awk '{print $3}')
echo "round trips: $total in ${seconds} s ($((total / seconds))/s)"
echo "TIME_WAIT: $on_accepting on the accepting sides, $on_connecting on the connecting sides"
[ "$failed" = 0 ] || { echo "FAIL: a client saw failures"; exit 1; }
[ "$total" -gt 0 ] || { echo "FAIL: no round trips"; exit 1; }
if [ "$on_connecting" -gt $((on_accepting / 20 + 10)) ]; then
    echo "FAIL: TIME_WAIT piles up on the connecting sides"
    exit 1
fi
EOF
