#!/usr/bin/env bash
# flood.sh [-B BUILD_DIR] [-d SECONDS] [-r RATE] [-m RSS_LIMIT_KIB] [-S] [-M] [-R] [-k]
#
# Floods zor_service with kernel reports and checks that it holds up. The
# service runs in the simulated world (tools/world/world.sh), whose control
# file keeps every command the kernel module receives. Kernel commands are
# written straight into that file (the default channel); -S sends them as
# shell lines instead (ctrl_shell = 1), through the recording shell for
# floods (tools/world/flood_sh.cpp: it starts as a program does, appends each
# line's text to the control file and runs no real shell), to compare.
# kernsim plays the kernel module and sends lossy (-L), as the module does: a
# report the service's full receive queue refuses is lost and counted. The
# cloud simulator answers every query after 2 s. Each round of reports is one
# new name, one name repeated all along, a name and an address the category
# file knows, and a repeated name with bit 0 set (the sender is asked for its
# queries). The two repeated names are asked for once before the flood, so
# during it they are cache hits.
#
# Checks, each printed as PASS or FAIL:
#   - the netlink receive thread never fell behind: kernsim lost nothing (a
#     send the service's full receive queue refused);
#   - every report the queue took was received (the count comes from the
#     service's log line at release), and none was dropped at the 1025-report
#     cap;
#   - the module received a u2k for every report received and not dropped;
#   - every category-file hit and every cache hit that was announced was
#     answered in the module (an update per u2k of those names);
#   - RssAnon, sampled every half second, stayed under RSS_LIMIT_KIB;
#   - after SIGTERM the service was gone within 2 s, with status 0.
#
# -M is the maximum-rate run: kernsim sends SECONDS x RATE reports as fast as
# it can; losses and drops are reported, not failed, and the figure is the
# rate at which the module received u2k commands and answers, from the first
# report to the last command.
#
# -R reports the two checks that depend on the machine's spare time (nothing
# lost before the receive thread, nothing dropped at the cap) without failing
# them: for a short run on a machine busy with other work.
#
# Defaults: 60 s at 50000 reports/s, RSS limit 8192 KiB, build dir build
# (zor_service, kernsim, cloudsim, xdbc, zorctl and flood_sh must be built). -k keeps
# the work directory. Exit status 0 when every check passed, 1 when one
# failed, 2 on a usage or set-up error, 77 when the simulated world cannot be
# built here (not root, no mount namespaces, netlink unicast refused).
set -euo pipefail
cd "$(dirname "$0")/.."

build=build seconds=60 rate=50000 rss_limit=8192 keep="" ctrl_shell=0 max_rate="" rate_checks=1
while getopts "B:d:r:m:SMRk" opt; do
    case $opt in
        B) build=$OPTARG ;;
        d) seconds=$OPTARG ;;
        r) rate=$OPTARG ;;
        m) rss_limit=$OPTARG ;;
        S) ctrl_shell=1 ;;
        M) max_rate=1 rate_checks="" ;;
        R) rate_checks="" ;;
        k) keep=1 ;;
        *) sed -n '2p' "$0" >&2; exit 2 ;;
    esac
done
for n in "$seconds" "$rate" "$rss_limit"; do
    [[ $n =~ ^[1-9][0-9]*$ ]] || { echo "flood: not a positive whole number: $n" >&2; exit 2; }
done

source scripts/world_lib.sh
world_check zor_service tools/world/flood_sh tools/zorctl/zorctl

# --- the world: a category file, the slow cloud, the service -----------------------
printf '.hit.example 0x0305\n198.51.100.0/24 0x0102\n' > "$work/categories.src"
"$build/tools/xdbc/xdbc" build "$work/categories.src" "$work/categories.xdb" >/dev/null
world_cloud "query * delay 2000"
world_service "$build/zor_service" "$build/tools/world/flood_sh"
world_announce
ctrl=$work/world/zor/ctrl
# lines of the control file matching the pattern
module_count() { grep -c "$1" "$ctrl" || true; }

# The two repeated names get their verdicts first, once the session is held
# (a batch sent before that is dropped, and its keys are not asked again for
# a day).
logged_in() { "$build/tools/zorctl/zorctl" -i "$work/zor.ini" -t 10 --json status 2>/dev/null | grep -q '"logged_in":true'; }
wait_until 300 logged_in || fail "the service never held its cloud session"
"$build/tools/kernsim/kernsim" -p "$service_pid" domain repeated.flood.test ";" domain asks.flood.test flags=1 \
    > "$work/warm.out" 2>&1 || fail "kernsim failed: $(cat "$work/warm.out")"
wait_until 200 grep -qs '^db key2group update 1 20 asks.flood.test ' "$ctrl" ||
    fail "no verdict for the repeated names"
wait_until 200 grep -qs '^db key2group update 1 20 repeated.flood.test ' "$ctrl" ||
    fail "no verdict for the repeated names"
warm_u2k=$(module_count '^db key2group u2k ')

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
send_rate=$rate
[ -n "$max_rate" ] && send_rate=0
"$build/tools/kernsim/kernsim" -p "$service_pid" -L -r "$send_rate" -n "$rounds" -s "$work/flood.ks" \
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

# What was accepted is answered before the service is stopped: wait until
# the control file stops growing; the last growth ends the run.
last=-1 answered_at=$ended
for _ in $(seq 1200); do
    now=$(stat -c %s "$ctrl")
    [ "$now" -eq "$last" ] && break
    [ "$last" -ge 0 ] && answered_at=$(date +%s.%N)
    last=$now
    r=$(rss_anon "$service_pid")
    [ -n "$r" ] && [ "$r" -gt "$rss_max" ] && rss_max=$r
    sleep 0.2
done
world_stop
u2k=$(( $(module_count '^db key2group u2k ') - warm_u2k ))
hit_u2k=$(module_count '^db key2group u2k \(20 w[0-9]*\.hit\.example\|21 198\.51\.100\.7\)$')
hit_updates=$(module_count '^db key2group update 2 ')
cached_u2k=$(( $(module_count '^db key2group u2k 20 \(repeated\|asks\)\.flood\.test$') - 2 ))
cached_updates=$(( $(module_count '^db key2group update 1 20 \(repeated\|asks\)\.flood\.test ') - 2 ))
all_lines=$(wc -l < "$ctrl")
shells=$(grep -c 'key2group' "$work/world/commands.log" || true)
read -r received dropped < <(sed -n 's/.*netlink reports: \([0-9]*\) received, \([0-9]*\) dropped with the queue full.*/\1 \2/p' \
    "$work/log/zorsrv.log" | tail -1)
[ -n "${received:-}" ] && received=$((received - 2))  # less the two reports before the flood

# --- the verdict -----------------------------------------------------------------------
elapsed=$(awk -v a="$started" -v b="$ended" 'BEGIN { printf "%.1f", b - a }')
achieved=$(awk -v n="$sent" -v a="$started" -v b="$ended" 'BEGIN { printf "%.0f", n / (b - a) }')
span=$(awk -v a="$started" -v b="$answered_at" 'BEGIN { printf "%.1f", b - a }')
u2k_rate=$(awk -v n="$u2k" -v a="$started" -v b="$answered_at" 'BEGIN { printf "%.0f", n / (b - a) }')
answer_rate=$(awk -v n="$((hit_updates + cached_updates))" -v a="$started" -v b="$answered_at" 'BEGIN { printf "%.0f", n / (b - a) }')
channel="direct writes"
[ "$ctrl_shell" = 1 ] && channel="shell lines (ctrl_shell = 1)"
echo "flood of $build/zor_service: $(date -u +%Y-%m-%dT%H:%M:%SZ), $(nproc) cores, load average $(cut -d' ' -f1-3 /proc/loadavg)"
echo "  kernel commands: $channel; command lines run by a shell: $shells"
if [ -n "$max_rate" ]; then
    echo "  asked: $((rounds * per_round)) reports as fast as kernsim sends; sent $sent in $elapsed s ($achieved/s), lost $lost"
else
    echo "  asked: $rate reports/s for $seconds s ($((rounds * per_round)) reports); sent $sent in $elapsed s ($achieved/s)"
fi
echo "  service: received ${received:-?}, dropped at the cap ${dropped:-?}, announced (u2k) $u2k"
echo "  module: $all_lines commands; u2k for hits $hit_u2k, their updates $hit_updates;" \
     "u2k for cache hits $cached_u2k, their updates $cached_updates"
echo "  answered in the module: $u2k u2k and $((hit_updates + cached_updates)) verdicts in $span s" \
     "($u2k_rate u2k/s, $answer_rate verdicts/s)"
echo "  RssAnon: $rss_idle KiB idle, $rss_max KiB at most; exit $stop_ms ms after SIGTERM, status $stop_status"
if [ -n "$rate_checks" ]; then
    check "the receive thread kept up: kernsim lost $lost" test "$lost" -eq 0
    check "no report was dropped at the cap (${dropped:-?})" test "${dropped:-x}" = 0
fi
check "every report the queue took was received ($sent sent - $lost lost = ${received:-?})" \
    test "${received:-x}" = "$((sent - lost))"
check "the module got a u2k for each report received and not dropped (${received:-?} - ${dropped:-?} = $u2k)" \
    test "$(( ${received:-0} - ${dropped:-0} ))" -eq "$u2k" -a -n "${received:-}"
check "every announced category-file hit was answered ($hit_u2k u2k, $hit_updates updates)" \
    test "$hit_u2k" -eq "$hit_updates"
check "every announced cache hit was answered ($cached_u2k u2k, $cached_updates updates)" \
    test "$cached_u2k" -eq "$cached_updates"
check "RssAnon stayed under $rss_limit KiB ($rss_max KiB)" test "$rss_max" -lt "$rss_limit"
check "SIGTERM ended the service within 2 s ($stop_ms ms, status $stop_status)" \
    test "$stop_ms" -le 2000 -a "$stop_status" -eq 0
finish flood
