#!/bin/bash
# obssh_bench.sh BIN: what a thousand outbound SSH clients whose servers are all dead cost the daemon in the folder BIN:
# its memory, and how long a command waits for its answer while attempts go on. Status 1 if a figure misses its goal.
set -euo pipefail
bin=$(cd "$1" && pwd)

clients=1000
timeout_s=5
questions=100
resident_goal_kib=16384
answer_goal_ms=50
start_limit_s=30

scratch=$(mktemp -d)
export KELD_ROOT=$scratch/root
trace=$KELD_ROOT/var/log/keld
keld_pid=
finish() {
    [ -z "$keld_pid" ] || { kill "$keld_pid" && wait "$keld_pid"; } 2>/dev/null || true
    rm -rf "$scratch"
}
trap finish EXIT

mkdir -p "$KELD_ROOT/var/run" "$KELD_ROOT/var/log" "$KELD_ROOT/var/etc"
{
    echo "system { services { outbound-ssh {"
    # Nothing listens on port 1: connections are refused at once, so that the next attempts come as fast as they can.
    for ((i = 1; i <= clients; i++)); do
        echo "client nms-$i { device-id router-$i; secret s; servers { 127.0.$((i / 250)).$((i % 250 + 1)) {"
        echo "    port 1; retry 3; timeout $timeout_s; } } }"
    done
    echo "traceoptions { flag all; size 100000000; }"
    echo "} } }"
} >"$KELD_ROOT/var/etc/keld.conf"

refused() {
    cat "$trace" 2>/dev/null | grep -c "failed: Error - " || true
}

"$bin/keld" -N >/dev/null 2>&1 &
keld_pid=$!
until [ "$(refused)" -gt "$clients" ]; do   # the first of the second attempts
    [ $SECONDS -lt $start_limit_s ] || {
        echo "$clients clients were not tried within $start_limit_s s" >&2
        exit 1
    }
    sleep 0.1
done

before=$(refused)
started_us=${EPOCHREALTIME/./}
times=()
for ((i = 1; i <= questions; i++)); do
    asked_us=${EPOCHREALTIME/./}
    "$bin/keldctl" show system services service-deployment >/dev/null
    times+=($(((${EPOCHREALTIME/./} - asked_us) / 1000)))
    sleep 0.1
done
took_ms=$(((${EPOCHREALTIME/./} - started_us) / 1000))
attempts=$((($(refused) - before) * 1000 / took_ms))
mapfile -t times < <(printf '%s\n' "${times[@]}" | sort -n)
resident_kib=$(awk '/^VmRSS:/ { print $2 }' "/proc/$keld_pid/status")
answer_ms=${times[-1]}

echo
printf '%-44s %8s %10s\n' "$clients outbound SSH clients, servers dead" "measured" "goal"
printf '%-44s %6s /s\n' "attempts meanwhile" "$attempts"
printf '%-44s %5s ms\n' "keldctl show, median of $questions" "${times[$((questions / 2))]}"
printf '%-44s %5s ms %7s ms\n' "keldctl show, slowest" "$answer_ms" "$answer_goal_ms"
printf '%-44s %4s KiB %6s KiB\n' "resident" "$resident_kib" "$resident_goal_kib"
[ "$answer_ms" -le "$answer_goal_ms" ] && [ "$resident_kib" -le "$resident_goal_kib" ]
