#!/usr/bin/env bash
# flood.sh [-B BUILD_DIR] [-d SECONDS] [-r RATE] [-m RSS_LIMIT_KIB] [-k]
#
# Floods zor_service with kernel reports and checks that it holds up. The
# service runs in the simulated world (tools/world/world.sh) with the recording
# shell for floods (tools/world/flood_sh.cpp: command lines are recorded,
# control-file lines are not run); kernsim plays the kernel module and sends
# lossy (-L), as the module does: a report the service's full receive queue
# refuses is lost and counted. The cloud simulator answers every query after
# 2 s. Each round of reports is one new name, one name repeated all along,
# a name and an address the category file knows, and a repeated name with
# bit 0 set (the sender is asked for its queries).
#
# Checks, each printed as PASS or FAIL:
#   - the netlink receive thread never fell behind: kernsim lost nothing (a
#     send the service's full receive queue refused);
#   - every report the queue took was received, and every one received was
#     either dropped at the 1025-report cap or announced to the kernel (u2k):
#     the counts come from the service's log line at release;
#   - RssAnon, sampled every half second, stayed under RSS_LIMIT_KIB;
#   - after SIGTERM the service was gone within 2 s, with status 0.
#
# Defaults: 60 s at 50000 reports/s, RSS limit 8192 KiB, build dir build
# (zor_service, kernsim, cloudsim, xdbc, world_sh and flood_sh must be
# built). -k keeps the work directory. Exit status 0 when every check
# passed, 1 when one failed, 2 on a usage or set-up error, 77 when the
# simulated world cannot be built here (not root, no mount namespaces,
# netlink unicast refused).
set -euo pipefail
cd "$(dirname "$0")/.."

build=build seconds=60 rate=50000 rss_limit=8192 keep=""
while getopts "B:d:r:m:k" opt; do
    case $opt in
        B) build=$OPTARG ;;
        d) seconds=$OPTARG ;;
        r) rate=$OPTARG ;;
        m) rss_limit=$OPTARG ;;
        k) keep=1 ;;
        *) sed -n '2p' "$0" >&2; exit 2 ;;
    esac
done
for n in "$seconds" "$rate" "$rss_limit"; do
    [[ $n =~ ^[1-9][0-9]*$ ]] || { echo "flood: not a positive whole number: $n" >&2; exit 2; }
done

source scripts/world_lib.sh
world_check zor_service tools/world/flood_sh

# --- the world: a category file, the slow cloud, the service -----------------------
printf '.hit.example 0x0305\n198.51.100.0/24 0x0102\n' > "$work/categories.src"
"$build/tools/xdbc/xdbc" build "$work/categories.src" "$work/categories.xdb" >/dev/null
world_cloud "query * delay 2000"
world_service "$build/zor_service" "$build/tools/world/flood_sh"
world_announce

# --- the flood -----------------------------------------------------------------------
per_round=5
rounds=$(( seconds * rate / per_round ))
cat > "$work/flood.ks" <<'EOF'
domain new{n}.flood.test
domain repeated.flood.test
domain w{n}.hit.example
addr 198.51.100.7
domain asks.flood.test flags=1
EOF
rss_idle=$(rss_anon "$service_pid")
started=$(date +%s.%N)
"$build/tools/kernsim/kernsim" -p "$service_pid" -L -r "$rate" -n "$rounds" -s "$work/flood.ks" \
    > "$work/kernsim.out" 2>&1 &
kernsim_pid=$!
rss_max=$rss_idle
while kill -0 "$kernsim_pid" 2>/dev/null; do
    r=$(rss_anon "$service_pid")
    [ -n "$r" ] && [ "$r" -gt "$rss_max" ] && rss_max=$r
    sleep 0.5
done
kernsim_status=0
wait "$kernsim_pid" || kernsim_status=$?
ended=$(date +%s.%N)
read -r sent lost < <(sed -n 's/^kernsim: sent \([0-9]*\), lost \([0-9]*\)$/\1 \2/p' "$work/kernsim.out")
[ "$kernsim_status" -eq 0 ] && [ -n "${sent:-}" ] || fail "kernsim failed ($kernsim_status): $(tail -3 "$work/kernsim.out")"

# What was accepted is announced before the service is stopped: wait until
# the command record stops growing.
count_u2k() { grep -c 'echo "db key2group u2k ' "$work/world/commands.log" || true; }
last=-1
for _ in $(seq 240); do
    now=$(count_u2k)
    [ "$now" -eq "$last" ] && break
    last=$now
    r=$(rss_anon "$service_pid")
    [ -n "$r" ] && [ "$r" -gt "$rss_max" ] && rss_max=$r
    sleep 1
done
u2k=$(count_u2k)
world_stop
read -r received dropped < <(sed -n 's/.*netlink reports: \([0-9]*\) received, \([0-9]*\) dropped with the queue full.*/\1 \2/p' \
    "$work/log/zorsrv.log" | tail -1)

# --- the verdict -----------------------------------------------------------------------
elapsed=$(awk -v a="$started" -v b="$ended" 'BEGIN { printf "%.1f", b - a }')
achieved=$(awk -v n="$sent" -v a="$started" -v b="$ended" 'BEGIN { printf "%.0f", n / (b - a) }')
echo "flood of $build/zor_service: $(date -u +%Y-%m-%dT%H:%M:%SZ), $(nproc) cores, load average $(cut -d' ' -f1-3 /proc/loadavg)"
echo "  asked: $rate reports/s for $seconds s ($((rounds * per_round)) reports); sent $sent in $elapsed s ($achieved/s)"
echo "  service: received ${received:-?}, dropped at the cap ${dropped:-?}, announced (u2k) $u2k"
echo "  RssAnon: $rss_idle KiB idle, $rss_max KiB at most; exit $stop_ms ms after SIGTERM, status $stop_status"
check "the receive thread kept up: kernsim lost $lost" test "$lost" -eq 0
check "every report the queue took was received ($sent sent - $lost lost = ${received:-?})" \
    test "${received:-x}" = "$((sent - lost))"
check "received = dropped at the cap + announced (${received:-?} = ${dropped:-?} + $u2k)" \
    test "$(( ${received:-0} - ${dropped:-0} ))" -eq "$u2k" -a -n "${received:-}"
check "RssAnon stayed under $rss_limit KiB ($rss_max KiB)" test "$rss_max" -lt "$rss_limit"
check "SIGTERM ended the service within 2 s ($stop_ms ms, status $stop_status)" \
    test "$stop_ms" -le 2000 -a "$stop_status" -eq 0
finish flood
