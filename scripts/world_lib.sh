# world_lib.sh: sourced by flood.sh, soak.sh and footprint.sh. Builds the simulated
# world around one zor_service (tools/world/world.sh), its cloud simulator and
# kernsim, measures the process, and keeps the PASS/FAIL tally. Everything
# started here is stopped by the exit trap; the work directory goes with it
# unless $keep is set.

fail() { echo "${0##*/}: $*" >&2; exit 2; }
skip() { echo "${0##*/}: skipped: $*" >&2; exit 77; }

work="" service_pid="" cloud_pid="" watchdog_pid="" failures=0 stop_ms="" stop_status=""

cleanup() {
    if [ -n "$service_pid" ] && kill -0 "$service_pid" 2>/dev/null; then
        kill -TERM "$service_pid" 2>/dev/null || true
        for _ in $(seq 50); do kill -0 "$service_pid" 2>/dev/null || break; sleep 0.1; done
        kill -KILL "$service_pid" 2>/dev/null || true
    fi
    if [ -n "$cloud_pid" ]; then kill -TERM "$cloud_pid" 2>/dev/null || true; wait "$cloud_pid" 2>/dev/null || true; fi
    if [ -n "$watchdog_pid" ]; then kill "$watchdog_pid" 2>/dev/null || true; fi
    if [ -z "$work" ]; then return; fi
    if [ -n "${keep:-}" ]; then echo "${0##*/}: kept $work" >&2; else rm -rf "$work"; fi
}

# world_check PROGRAM...: the world can be built here and the programs
# (paths in $build) are built; makes the work directory.
world_check() {
    local p
    [ "$(id -u)" -eq 0 ] || skip "the simulated world needs root"
    unshare -m --propagation private true 2>/dev/null || skip "mount namespaces are not permitted here"
    for p in "$@" tools/kernsim/kernsim tools/cloudsim/cloudsim tools/xdbc/xdbc; do
        [ -x "$build/$p" ] || fail "$build/$p is not built (cmake --build $build -j2 --target ${p##*/})"
    done
    work=$(mktemp -d /tmp/zor_world.XXXXXX)
    trap cleanup EXIT
}

# Waits up to $1 tenths of a second for the command that follows to succeed.
wait_until() {
    local tenths=$1; shift
    for _ in $(seq "$tenths"); do
        if "$@"; then return 0; fi
        sleep 0.1
    done
    return 1
}

# world_cloud [SCRIPT_LINE]: the cloud simulator, scripted when a line is given.
world_cloud() {
    local script=()
    if [ -n "${1:-}" ]; then
        echo "$1" > "$work/cloud.script"
        script=(-s "$work/cloud.script")
    fi
    "$build/tools/cloudsim/cloudsim" "${script[@]}" -C "$work/cloud.pem" -P "$work/cloud.port" -l "$work/cloud.log" \
        > "$work/cloud.out" 2>&1 &
    cloud_pid=$!
    wait_until 100 test -s "$work/cloud.port" || fail "the cloud simulator did not start: $(cat "$work/cloud.out")"
}

# world_service SERVICE RECORDING_SHELL [LOG_LEVEL]: the service in the
# world, up to the point where it has loaded its module. The service keeps
# the pid of the job (world.sh execs it), which is its netlink port. Kernel
# commands go straight into the control file unless $ctrl_shell is 1.
world_service() {
    mkdir -p "$work/opt" "$work/world"
    echo "not a real module" > "$work/opt/zor.ko"
    cat > "$work/zor.ini" <<EOF
[zor]
auth_id = world-account
auth_pwd = world-password
host = world-host
product = world-product
root = $work/opt
writable_root = $work/run
server = 127.0.0.1:$(cat "$work/cloud.port")
ca_file = $work/cloud.pem
log_level = ${3:-6}
xdb = $work/categories.xdb
ctrl_shell = ${ctrl_shell:-0}
EOF
    bash tools/world/world.sh -s "$2" "$work/world" "$1" -i "$work/zor.ini" -l "$work/log" \
        > "$work/service.out" 2>&1 &
    service_pid=$!
    wait_until 300 grep -qs '^zor ' "$work/world/modules" || fail "the service did not start: $(cat "$work/service.out")"
}

# world_announce: kernsim announces the family; waits for the port line and
# the cloud login.
world_announce() {
    if ! "$build/tools/kernsim/kernsim" -p "$service_pid" -w 5 announce > "$work/announce.out" 2>&1; then
        grep -q "not permitted" "$work/announce.out" && skip "generic netlink unicast is refused here"
        fail "kernsim could not announce the family: $(cat "$work/announce.out")"
    fi
    wait_until 100 grep -qs "^env server_port $service_pid\$" "$work/world/zor/ctrl" ||
        fail "the service never told the kernel its port"
    wait_until 300 grep -qs ' ping .* 200 ' "$work/cloud.log" || fail "the service did not log in to the cloud simulator"
}

rss_anon() { awk '$1 == "RssAnon:" { print $2 }' "/proc/$1/status" 2>/dev/null || true; }
open_fds() { ls "/proc/$1/fd" 2>/dev/null | wc -l; }

# world_stop: SIGTERM; sets stop_ms (until the process was gone) and
# stop_status. A service still there after 5 s is killed.
world_stop() {
    local t0 t1
    t0=$(date +%s%N)
    kill -TERM "$service_pid"
    (sleep 5; kill -KILL "$service_pid" 2>/dev/null) &
    watchdog_pid=$!
    stop_status=0
    wait "$service_pid" || stop_status=$?
    t1=$(date +%s%N)
    kill "$watchdog_pid" 2>/dev/null || true
    wait "$watchdog_pid" 2>/dev/null || true
    watchdog_pid="" service_pid=""
    stop_ms=$(( (t1 - t0) / 1000000 ))
}

# check DESCRIPTION COMMAND...: PASS or FAIL, counted.
check() {
    local what=$1; shift
    if "$@"; then echo "PASS $what"; else echo "FAIL $what"; failures=$((failures + 1)); fi
}

finish() {
    if [ "$failures" -eq 0 ]; then echo "$1: all checks passed"; exit 0; fi
    echo "$1: $failures check(s) failed${keep:+ (work directory $work)}"
    exit 1
}
