#!/usr/bin/env bash
# footprint.sh [BUILD_DIR]: what the running service costs the router.
#
# Starts zor_service in the simulated world (tools/world/world.sh: the kernel
# module is played from user space, nothing touches the real kernel) with a
# generated category file loaded and logged in to the cloud simulator, has
# kernsim announce the netlink family, lets it settle, and then measures
#   - idle private memory: RssAnon of /proc/PID/status (target: under
#     3 MiB plus the size of the loaded category file);
#   - the stripped binary: a stripped copy of BUILD_DIR/zor_service;
#   - idle wake-ups per second: voluntary and involuntary context switches
#     of every thread (/proc/PID/task/*/status) over ZOR_FOOTPRINT_SECONDS
#     (default 60), against what the service's timers need.
# Needs root (the world uses mount namespaces and netlink between sockets).
# Builds the tools it needs in BUILD_DIR (default build) with at most
# ZOR_JOBS (default 2) jobs. ZOR_FOOTPRINT_PATTERNS sets the category file's
# domain rules (default 100000); ZOR_FOOTPRINT_KEEP=1 keeps the work
# directory (logs, world, category file). Exit status 0 when every figure is within
# its target, 1 when one is not, 2 when the measurement could not be made, 77
# when the simulated world cannot be built here.
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1:-build}
seconds=${ZOR_FOOTPRINT_SECONDS:-60}
patterns=${ZOR_FOOTPRINT_PATTERNS:-100000}

if [ ! -f "$build/CMakeCache.txt" ]; then
    cmake -S . -B "$build" -G "Unix Makefiles" >/dev/null
fi
cmake --build "$build" -j "${ZOR_JOBS:-2}" --target zor_service cloudsim kernsim xdbc world_sh >/dev/null

keep=${ZOR_FOOTPRINT_KEEP:-}
source scripts/world_lib.sh
world_check tools/world/world_sh

# --- a category file of $patterns domain rules and a few networks --------------
awk -v n="$patterns" 'BEGIN {
    split("com net org io de info tv", tld, " ")
    split("ba ce di fo gu ha je ki lo mu na pe ri so tu va we xi yo zu", syl, " ")
    s = 12345
    for (i = 0; i < n; i++) {
        name = ""
        parts = 2 + i % 3
        for (k = 0; k < parts; k++) { s = (s * 1103515245 + 12345) % 2147483648; name = name syl[1 + int(s / 65536) % 20] }
        printf ".%s%d.%s 0x%x\n", name, i, tld[1 + i % 7], 1 + i % 4096
    }
    for (i = 0; i < 64; i++) printf "10.%d.0.0/16 0x%x\n", i, 0x100 + i
}' > "$work/categories.src"
"$build/tools/xdbc/xdbc" build "$work/categories.src" "$work/categories.xdb" >/dev/null
xdb_bytes=$(stat -c %s "$work/categories.xdb")

# --- the cloud and the service in the simulated world ---------------------------
world_cloud
world_service "$build/zor_service" "$build/tools/world/world_sh"
world_announce
sleep 3  # start-up work (log lines, first timer rounds) is over

# --- idle private memory -------------------------------------------------------
status_kib() { awk -v k="$1:" '$1 == k { print $2 }' "/proc/$service_pid/status"; }
rss_anon_kib=$(status_kib RssAnon)
rss_file_kib=$(status_kib RssFile)
vm_rss_kib=$(status_kib VmRSS)
vm_size_kib=$(status_kib VmSize)
threads=$(status_kib Threads)

# Where the anonymous pages are, from /proc/PID/smaps: written pages of
# shared libraries (relocations, data), the main heap and stack, thread
# stacks (8 MiB mappings), malloc's thread arenas (64 MiB aligned), and the
# rest (large blocks such as the category file's tables).
anon_breakdown() {
    local a b name="" lo=0 hi=0 key
    local -A kib=()
    while read -r a b _ _ _ name_field _; do
        if [[ $a =~ ^([0-9a-f]+)-([0-9a-f]+)$ ]]; then
            lo=$((16#${BASH_REMATCH[1]})); hi=$((16#${BASH_REMATCH[2]})); name=${name_field:-}
        elif [ "$a" = "Anonymous:" ] && [ "$b" -gt 0 ]; then
            if [[ $name == /* ]]; then key="written pages of shared libraries"
            elif [ "$name" = "[heap]" ]; then key="main heap"
            elif [ "$name" = "[stack]" ]; then key="main thread stack"
            elif [ $((hi - lo)) -eq $((8 * 1024 * 1024)) ]; then key="thread stacks"
            elif [ $((lo % (64 * 1024 * 1024))) -eq 0 ]; then key="malloc thread arenas"
            else key="other anonymous (category file tables, large blocks)"; fi
            kib[$key]=$(( ${kib[$key]:-0} + b ))
        fi
    done < "/proc/$service_pid/smaps"
    for key in "${!kib[@]}"; do printf '%6d KiB  %s\n' "${kib[$key]}" "$key"; done | sort -rn
}
breakdown=$(anon_breakdown)

# --- idle wake-ups -------------------------------------------------------------
# One line per thread: tid, voluntary switches (the thread went to sleep, so
# something had to wake it), involuntary ones (it was preempted).
switches() {
    local t
    for t in /proc/"$service_pid"/task/*; do
        awk -v tid="${t##*/}" '/^voluntary_ctxt_switches:/ { v = $2 } /^nonvoluntary_ctxt_switches:/ { n = $2 }
                               END { print tid, v, n }' "$t/status" 2>/dev/null
    done | sort -n
}
switches > "$work/switches.0"
commands_before=$(wc -l < "$work/world/commands.log")
sleep "$seconds"
switches > "$work/switches.1"
commands_after=$(wc -l < "$work/world/commands.log")
[ -d "/proc/$service_pid" ] || fail "the service ended during the measurement: $(cat "$work/service.out")"

# --- the stripped binary ---------------------------------------------------------
strip -o "$work/zor_service.stripped" "$build/zor_service"
stripped_bytes=$(stat -c %s "$work/zor_service.stripped")
read -r text_bytes data_bytes bss_bytes _ < <(size "$work/zor_service.stripped" | awk 'NR == 2')

# --- report --------------------------------------------------------------------
# What the timers need in the window, each counted as often as it can fire
# in it: the main loop (1 s), the cache cleaner (5 s), the trigger (10 s)
# and the query sender it wakes, the family resolver (5 s) and the receive
# thread that reads the controller's reply, the log cleaner (60 s). The
# session maintainer sleeps until the token is due (an hour here).
budget=$(awk -v s="$seconds" 'function n(p) { return int(s / p) + 1 }
    BEGIN { printf "%.3f", (n(1) + n(5) + 2 * n(10) + 2 * n(5) + n(60)) / s }')
limit_kib=$(( 3 * 1024 + (xdb_bytes + 1023) / 1024 ))

echo "footprint of $build/zor_service ($(date -u +%Y-%m-%dT%H:%M:%SZ), load average $(cut -d' ' -f1-3 /proc/loadavg))"
echo "category file: $patterns domain rules, 64 networks, $xdb_bytes bytes"
echo
echo "idle memory (KiB): RssAnon $rss_anon_kib, RssFile $rss_file_kib, VmRSS $vm_rss_kib, VmSize $vm_size_kib; $threads threads"
echo "  target RssAnon < 3 MiB + category file = $limit_kib KiB"
echo "$breakdown" | sed 's/^/  /'
echo "stripped binary: $stripped_bytes bytes (text $text_bytes, data $data_bytes, bss $bss_bytes)"
echo "idle wake-ups over ${seconds} s (commands run meanwhile: $((commands_after - commands_before))):"
# Threads in the order they started; one that started during the window
# counts from zero, one that ended in it is left out.
awk -v s="$seconds" '
    NR == FNR { order[++count] = $1; v0[$1] = $2; n0[$1] = $3; next }
    { v1[$1] = $2; n1[$1] = $3; if (!($1 in v0)) { order[++count] = $1; v0[$1] = 0; n0[$1] = 0 } }
    END {
      for (i = 1; i <= count; ++i) {
        t = order[i]; if (!(t in v1)) continue
        v = v1[t] - v0[t]; n = n1[t] - n0[t]; tv += v; tn += n
        printf "  thread %-8s %5d wake-ups %7.3f /s   (%d preempted)\n", t, v, v / s, n
      }
      printf "  all threads     %5d wake-ups %7.3f /s   (%d preempted)\n", tv, tv / s, tn
      print tv / s > "/dev/stderr"
    }' "$work/switches.0" "$work/switches.1" 2> "$work/rate"
rate=$(cat "$work/rate")
echo "  target: no more than the timers need, $budget /s"

status=0
if [ "$rss_anon_kib" -ge "$limit_kib" ]; then echo "MISS: RssAnon $rss_anon_kib KiB >= $limit_kib KiB"; status=1; fi
if awk -v r="$rate" -v b="$budget" 'BEGIN { exit !(r > b) }'; then echo "MISS: $rate wake-ups/s > $budget"; status=1; fi
[ $status -eq 0 ] && echo "all figures within their targets"
exit $status
