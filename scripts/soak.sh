#!/usr/bin/env bash
# soak.sh [-B BUILD_DIR] [-d SECONDS] [-i INTERVAL] [-r RATE] [-u NAMES] [-a RSS_ALLOWANCE_KIB] [-f FD_ALLOWANCE] [-k]
#
# Keeps zor_service busy for a long while and checks that its memory and
# descriptors stay flat. The program is zor_service_soak (the service with
# its cache cleaner every 250 ms and its log cleaner every second instead of
# 5 s and 60 s), in the simulated world (tools/world/world.sh) with the
# recording shell for floods. kernsim reports at RATE (new names, names seen before, category-file
# hits, a flagged name that sends the queries); the cloud simulator hands out
# tokens that expire in 320 s, so the session is renewed every 20 s. Every
# INTERVAL zorctl asks for the status, shows the cache and applies a file of
# 500 parental-control rules, each logged as it is sent: the log grows some
# 60 KiB each time, so the log cleaner rotates it every few minutes.
#
# RssAnon and open descriptors are sampled every INTERVAL. The first quarter
# of the run is warm-up; the check fails when a later sample exceeds the
# highest warm-up sample by more than the allowance (RSS_ALLOWANCE_KIB,
# default 512; FD_ALLOWANCE, default 4), or when the service dies.
#
# Every new name is new for good by default: the verdict cache then fills
# for about a minute until its cleaner holds it steady, so a run must be
# several minutes long for its warm-up to cover that. -u NAMES cycles the new
# names through NAMES values instead, so that the cache is full after the
# first NAMES / (RATE / 5) seconds: for short runs, whose warm-up is shorter
# than the cache's filling.
#
# Defaults: 600 s, samples every 10 s, 200 reports/s, build dir build
# (zor_service_soak, zorctl, kernsim, cloudsim, xdbc and flood_sh must be
# built). -k keeps the work directory. Exit status 0 when flat, 1 when not,
# 2 on a usage or set-up error, 77 when the simulated world cannot be built
# here.
set -euo pipefail
cd "$(dirname "$0")/.."

build=build seconds=600 interval=10 rate=200 names=0 rss_allow=512 fd_allow=4 keep=""
while getopts "B:d:i:r:u:a:f:k" opt; do
    case $opt in
        B) build=$OPTARG ;;
        d) seconds=$OPTARG ;;
        i) interval=$OPTARG ;;
        r) rate=$OPTARG ;;
        u) names=$OPTARG ;;
        a) rss_allow=$OPTARG ;;
        f) fd_allow=$OPTARG ;;
        k) keep=1 ;;
        *) sed -n '2p' "$0" >&2; exit 2 ;;
    esac
done
for n in "$seconds" "$interval" "$rate" "$names" "$rss_allow" "$fd_allow"; do
    [[ $n =~ ^[0-9]+$ ]] || { echo "soak: not a whole number: $n" >&2; exit 2; }
done
[ "$interval" -gt 0 ] && [ "$seconds" -ge $((4 * interval)) ] ||
    { echo "soak: the run must last at least four intervals" >&2; exit 2; }

source scripts/world_lib.sh
world_check tests/hardening/zor_service_soak tools/world/flood_sh tools/zorctl/zorctl

printf '.hit.example 0x0305\n198.51.100.0/24 0x0102\n' > "$work/categories.src"
"$build/tools/xdbc/xdbc" build "$work/categories.src" "$work/categories.xdb" >/dev/null
world_cloud "token_ttl 320"
world_service "$build/tests/hardening/zor_service_soak" "$build/tools/world/flood_sh"
world_announce

awk 'BEGIN { printf "{"; for (i = 0; i < 500; i++) printf "%s\"%d\":{\"mac\":\"0200%08x\",\"dn\":\"rule%d.soak.test\"}", i ? "," : "", i + 1, i, i; print "}" }' \
    > "$work/rules.json"
zorctl() { "$build/tools/zorctl/zorctl" -i "$work/zor.ini" -t 10 "$@" > /dev/null 2>&1 || true; }
zorctl pc on
# One round: a new name, a name seen before, a category-file hit, an
# address hit and a flagged name. With -u, NAMES rounds in the script, each
# with its own new name, and the script is repeated.
rounds=$(( (seconds + 60) * rate / 5 + 1 ))
round() {
    printf 'domain new%s.soak.test\ndomain seen-again.soak.test\ndomain w{n}.hit.example\n' "$1"
    printf 'addr 198.51.100.7\ndomain asks.soak.test flags=1\n'
}
if [ "$names" -gt 0 ]; then
    for i in $(seq "$names"); do round "$i"; done > "$work/soak.ks"
    rounds=$(( rounds / names + 1 ))
else
    round "{n}" > "$work/soak.ks"
fi
"$build/tools/kernsim/kernsim" -p "$service_pid" -r "$rate" -n "$rounds" \
    -s "$work/soak.ks" > "$work/kernsim.out" 2>&1 &
kernsim_pid=$!

warmup=$(( seconds / 4 ))
echo "soak of zor_service_soak: $seconds s, $rate reports/s, new names ${names/#0/unbounded}, samples every $interval s, warm-up $warmup s"
echo "   time  RssAnon KiB  fds  commands"
ref_rss=0 ref_fds=0 max_rss=0 max_fds=0 first_rss="" last_rss="" t=0 over=""
while [ "$t" -lt "$seconds" ]; do
    sleep "$interval"
    t=$((t + interval))
    zorctl status
    zorctl db show
    zorctl pc rule "$work/rules.json"
    rss=$(rss_anon "$service_pid") fds=$(open_fds "$service_pid")
    [ -n "$rss" ] || { echo "FAIL the service died at $t s: $(tail -5 "$work/service.out")"; failures=1; break; }
    printf '%7d  %11d  %3d  %8d\n' "$t" "$rss" "$fds" "$(wc -l < "$work/world/commands.log")"
    if [ "$t" -le "$warmup" ]; then
        [ "$rss" -gt "$ref_rss" ] && ref_rss=$rss
        [ "$fds" -gt "$ref_fds" ] && ref_fds=$fds
    else
        [ -n "$first_rss" ] || first_rss=$rss
        last_rss=$rss
        [ "$rss" -gt "$max_rss" ] && max_rss=$rss
        [ "$fds" -gt "$max_fds" ] && max_fds=$fds
    fi
done
kill "$kernsim_pid" 2>/dev/null || true
wait "$kernsim_pid" 2>/dev/null || true
if [ "$failures" -eq 0 ]; then
    world_stop
    log_files=$(find "$work/log" -type f | wc -l)
    log_kib=$(du -sk "$work/log" | cut -f1)
    echo "after warm-up: RssAnon $first_rss -> $last_rss KiB (highest $max_rss), fds up to $max_fds;" \
         "log directory $log_kib KiB in $log_files files"
    check "RssAnon stayed within $ref_rss + $rss_allow KiB after warm-up (highest $max_rss KiB)" \
        test "$max_rss" -le $((ref_rss + rss_allow))
    check "open descriptors stayed within $ref_fds + $fd_allow after warm-up (highest $max_fds)" \
        test "$max_fds" -le $((ref_fds + fd_allow))
    check "SIGTERM ended the service within 2 s ($stop_ms ms, status $stop_status)" \
        test "$stop_ms" -le 2000 -a "$stop_status" -eq 0
fi
finish soak
