#!/usr/bin/env bash
# The service's main job, end to end, in the simulated world: builds
# everything, compiles the sample category file, starts the cloud simulator
# and zor_service (with its kernel module played by stubs and kernsim, see
# docs/world.md), feeds it a few domain names and addresses, prints every
# command the kernel module receives as it happens, takes in a renewed
# category file without a restart, prints the service's counters, and shuts
# down.
#
# Kernel commands are written straight into the control file, as the service
# does by default; DEMO_CTRL_SHELL=1 runs the demo with ctrl_shell = 1, where
# each command is a shell line instead.
#
# Needs root (a private mount namespace and generic netlink). Nothing outside
# the world is touched: the real /proc, shell and modules stay as they are.
set -euo pipefail
cd "$(dirname "$0")/.."
src=$(pwd)

if [ "$(id -u)" -ne 0 ]; then
    echo "demo: run me as root: the simulated world needs a mount namespace and netlink" >&2
    exit 1
fi

echo "== set-up and build (the first build takes a few minutes)"
bash scripts/setup.sh
bash scripts/build.sh build
bin=$src/build

work=$(mktemp -d /tmp/zor_demo.XXXXXX)
svc="" cloud="" watcher=""
cleanup() {
    local status=$?
    for p in $svc $cloud; do
        if kill -0 "$p" 2>/dev/null; then kill -TERM "$p" 2>/dev/null || true; fi
    done
    for p in $svc $cloud $watcher; do wait "$p" 2>/dev/null || true; done
    if [ $status -ne 0 ] && [ -f "$work/log/zorsrv.log" ]; then
        echo "-- service log:"; cat "$work/log/zorsrv.log"
        echo "-- service output:"; cat "$work/service.out" 2>/dev/null || true
    fi
    rm -rf "$work"
    exit $status
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# wait_for SECONDS WHAT COMMAND...: polls COMMAND every 0.1 s.
wait_for() {
    local limit=$(( $1 * 10 )) what=$2; shift 2
    local i
    for ((i = 0; i < limit; i++)); do
        if "$@"; then return 0; fi
        sleep 0.1
    done
    echo "demo: gave up waiting for $what" >&2
    return 1
}
count() { grep -c -- "$2" "$1" 2>/dev/null || true; }
has_at_least() { [ "$(count "$1" "$2")" -ge "$3" ]; }

echo
echo "== category file: examples/demo/categories.src"
"$bin/tools/xdbc/xdbc" build examples/demo/categories.src "$work/categories.xdb"
grep -v '^#' examples/demo/categories.src | sed 's/^/   /'

echo
echo "== cloud simulator, answering from examples/demo/cloud-categories.txt"
"$bin/tools/cloudsim/cloudsim" -c examples/demo/cloud-categories.txt -C "$work/cloud.pem" -P "$work/cloud.port" \
    -l "$work/cloud.log" > "$work/cloud.out" 2>&1 &
cloud=$!
wait_for 20 "the cloud simulator" test -s "$work/cloud.port"
port=$(cat "$work/cloud.port")
echo "   listening on 127.0.0.1:$port"

mkdir -p "$work/root"
echo "not a real module" > "$work/root/zor.ko"
cat > "$work/zor.ini" <<EOF
[zor]
auth_id = demo-account
auth_pwd = demo-password
host = demo-router
product = demo-product
root = $work/root
writable_root = $work/run
server = 127.0.0.1:$port
ca_file = $work/cloud.pem
xdb = $work/categories.xdb
log_level = 6
ctrl_shell = ${DEMO_CTRL_SHELL:-0}
EOF

echo
echo "== zor_service in the simulated world"
world=$work/world
tools/world/world.sh -s "$bin/tools/world/world_sh" "$world" \
    "$bin/zor_service" -i "$work/zor.ini" -l "$work/log" > "$work/service.out" 2>&1 &
svc=$!
wait_for 20 "the kernel module to be loaded" grep -qs '^zor ' "$world/modules"
echo "   pid $svc; it loaded its kernel module with:"
grep 'insmod ' "$world/commands.log" | sed 's/^/   $ /'

# Every line the module receives, as it arrives, until the service ends.
explain() {
    local line f
    while IFS= read -r line; do
        read -r -a f <<< "$line"
        case $line in
            "env server_port "*) printf '   kernel <- %-52s (where to send reports)\n' "$line" ;;
            "db key2group u2k "*) printf '   kernel <- %-52s (being resolved)\n' "$line" ;;
            "db key2group update 2 "*)
                printf '   kernel <- %-52s (category file: group %s/%s, %s s)\n' "$line" "${f[7]}" "${f[8]}" "${f[6]}" ;;
            "db key2group update 1 "*)
                printf '   kernel <- %-52s (cloud or cache: group %s/%s, %s s)\n' "$line" "${f[7]}" "${f[8]}" "${f[6]}" ;;
            *) printf '   kernel <- %s\n' "$line" ;;
        esac
    done
}
ctrl=$world/zor/ctrl
if [ "${DEMO_CTRL_SHELL:-0}" = 1 ]; then
    echo "   kernel commands: a shell line each (ctrl_shell = 1)"
else
    echo "   kernel commands: written straight into /proc/zor/ctrl, no shell (the default)"
fi
tail -s 0.1 --pid="$svc" -n +1 -F "$ctrl" 2>/dev/null | explain &
watcher=$!

ks() { "$bin/tools/kernsim/kernsim" -p "$svc" -w 5 "$@"; }

echo
echo "== the kernel module announces its netlink family"
ks announce
wait_for 20 "the port announcement" grep -q "^env server_port $svc\$" "$ctrl"
wait_for 30 "the cloud login" awk '$3 == "ping" && $6 == 200 { found = 1 } END { exit !found }' "$work/cloud.log"
sleep 0.5

echo
echo "== a name and an address the category file knows: answered locally"
ks domain www.local-news.example \; addr 198.51.100.7
wait_for 20 "the local verdicts" has_at_least "$ctrl" '^db key2group update 2 ' 2

echo
echo "== names and an address nobody here knows: one batch to the cloud"
ks domain www.example.com \; domain ads.example.net \; addr 203.0.113.5 flags=1
wait_for 20 "the cloud's verdicts" has_at_least "$ctrl" '^db key2group update 1 ' 3

echo
echo "== www.example.com again: answered from the verdict cache, no new query"
ks domain www.example.com flags=1
wait_for 20 "the cached verdict" has_at_least "$ctrl" '^db key2group update 1 20 www.example.com ' 2
sleep 0.5

echo
echo "== what the cloud was asked"
awk '$3 == "query" { $1 = $2 = $3 = $4 = $5 = $7 = ""; sub(/^ +/, ""); print "   status " $0 }' "$work/cloud.log"

echo
echo "== a renewed category file, taken in without a restart (zorctl reload)"
{ cat examples/demo/categories.src; echo ".new-games.example   0x0714"; } > "$work/categories.src"
"$bin/tools/xdbc/xdbc" build "$work/categories.src" "$work/categories.xdb.new"
mv "$work/categories.xdb.new" "$work/categories.xdb"  # a rename: the service never reads half a file
zctl() { "$bin/tools/zorctl/zorctl" -i "$work/zor.ini" "$@"; }
zctl reload | sed 's/^/   zorctl: /'
ks domain play.new-games.example \; domain www.example.com flags=1
wait_for 20 "the new file's verdict" grep -q '^db key2group update 2 20 play.new-games.example ' "$ctrl"
wait_for 20 "the kept cache" has_at_least "$ctrl" '^db key2group update 1 20 www.example.com ' 3
sleep 0.5

echo
echo "== what the service counted (zorctl stats)"
zctl stats | grep -v ' 0$' | sed 's/^/   /'

echo
echo "== stopping the service (SIGTERM)"
kill -TERM "$svc"
status=0
wait "$svc" || status=$?
svc=""
wait "$watcher" 2>/dev/null || true
watcher=""
echo "   zor_service exited with status $status"
echo "   shell lines it ran: $(wc -l < "$world/commands.log") (of them kernel commands: $(count "$world/commands.log" key2group))"
kill -TERM "$cloud"
wait "$cloud" 2>/dev/null || true
cloud=""
[ "$status" -eq 0 ]
echo "== done"
