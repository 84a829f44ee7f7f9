#!/usr/bin/env bash
# Idle cost of tavrad: resident memory and wake-ups with no run and nothing
# held. Starts the release build in a private home without a helper, lets it
# settle, then counts the context switches of all its threads over a window
# (default 120 s) and prints the resident set at the end.
#   bench/daemon-idle.sh [seconds]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-120}
daemon=${TAVRAD:-build/release/src/daemon/tavrad}
home=$(mktemp -d /tmp/tavra-idle.XXXXXX)
HOME=$home XDG_DATA_HOME= XDG_STATE_HOME= TAVRA_NO_HELPER=1 "$daemon" >"$home/log" 2>&1 &
pid=$!
trap 'kill -TERM $pid 2>/dev/null; wait $pid 2>/dev/null; rm -rf "$home"' EXIT
sleep 5

switches() {  # voluntary and involuntary, summed over every thread
  cat /proc/"$pid"/task/*/status | awk '/^voluntary_ctxt_switches/ {v += $2} /^nonvoluntary_ctxt_switches/ {n += $2}
    END {print v, n}'
}
read -r v0 n0 < <(switches)
sleep "$seconds"
read -r v1 n1 < <(switches)
rss=$(awk '/^VmRSS/ {print $2, $3}' /proc/"$pid"/status)
threads=$(ls /proc/"$pid"/task | wc -l)
echo "threads: $threads"
echo "resident: $rss"
echo "context switches in ${seconds}s: voluntary $((v1 - v0)), involuntary $((n1 - n0))"
