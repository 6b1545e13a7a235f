#!/bin/bash
# daemon_bench.sh BIN: two figures of the daemon as a process, measured with the programs in the folder BIN:
# how long after its start it has connected to its server, and how much memory it holds with an idle TLS session.
# Status 1 if one of them is over its limit.
set -euo pipefail
bin=$(cd "$1" && pwd)

starts=9
connect_limit_ms=20
resident_limit_kib=8192
session_limit_s=10

scratch=$(mktemp -d)
export KELD_ROOT=$scratch/root
server_pid=
keld_pid=
stop_one() {
    [ -z "$1" ] || { kill "$1" && wait "$1"; } 2>/dev/null || true
}
finish() {
    stop_one "$keld_pid"
    stop_one "$server_pid"
    rm -rf "$scratch"
}
trap finish EXIT

mkdir -p "$KELD_ROOT/var/run" "$KELD_ROOT/var/log" "$KELD_ROOT/var/etc/ssl"
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj /CN=bench \
    -keyout "$scratch/key.pem" -out "$KELD_ROOT/var/etc/ssl/ca.pem" 2>/dev/null
cat "$KELD_ROOT/var/etc/ssl/ca.pem" "$scratch/key.pem" >"$scratch/server.pem"

"$bin/kelserver" --port 0 --address 127.0.0.1 --tls "$scratch/server.pem" </dev/null >"$scratch/server.log" 2>&1 &
server_pid=$!

# await COUNT TEXT: until the server has printed that many lines with TEXT; the last of them on standard output.
await() {
    local deadline=$((SECONDS + session_limit_s))
    until [ "$(grep -cF -- "$2" "$scratch/server.log")" -ge "$1" ]; do
        [ $SECONDS -lt $deadline ] || {
            echo "'$2' did not come within $session_limit_s s" >&2
            cat "$scratch/server.log" "$KELD_ROOT"/var/log/* >&2
            exit 1
        }
        sleep 0.02
    done
    grep -F -- "$2" "$scratch/server.log" | tail -n 1
}

# Milliseconds since midnight of a line's time.
clock_ms() {
    local hours minutes seconds millis
    IFS=':. ' read -r hours minutes seconds millis _ <<<"$1"
    echo $((((10#$hours * 60 + 10#$minutes) * 60 + 10#$seconds) * 1000 + 10#$millis))
}

port=$(await 1 "listening on" | sed 's/.* port \([0-9]*\).*/\1/')
cat >"$KELD_ROOT/var/etc/keld.conf" <<CONFIGURATION
system { services { service-deployment { servers { 127.0.0.1 {
    port $port; security-options { tls; self-certificate; } } } } } }
security { certificates { certification-authority bench { file /var/etc/ssl/ca.pem; } } }
CONFIGURATION

times=()
for ((i = 1; i <= starts; i++)); do
    stop_one "$keld_pid"
    printf -v now '%(%H:%M:%S)T.%s' "$EPOCHSECONDS" "${EPOCHREALTIME: -6:3}"
    "$bin/keld" -N >/dev/null 2>&1 &
    keld_pid=$!
    line=$(await "$i" "connection from")
    times+=($(($(clock_ms "$line") - $(clock_ms "$now"))))
    await "$i" "opened: notification" >/dev/null
done
mapfile -t times < <(printf '%s\n' "${times[@]}" | sort -n)
connect_ms=${times[$((starts / 2))]}
resident_kib=$(awk '/^VmRSS:/ { print $2 }' "/proc/$keld_pid/status")

echo
printf '%-44s %8s %10s\n' "daemon" "measured" "limit"
printf '%-44s %5s ms %7s ms\n' "start to connection, median of $starts" "$connect_ms" "$connect_limit_ms"
printf '%-44s %4s KiB %6s KiB\n' "resident with an idle TLS session" "$resident_kib" "$resident_limit_kib"
[ "$connect_ms" -le "$connect_limit_ms" ] && [ "$resident_kib" -le "$resident_limit_kib" ]
