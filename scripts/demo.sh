#!/usr/bin/env bash
# The service's main job, shown end to end: builds everything, starts
# zor_service with the sample configuration (examples/zor.ini) and a
# temporary log directory, lets it run for a few seconds, stops it with
# SIGTERM and prints its log.
#
# insmod, lsmod and rmmod are replaced by stubs first on PATH, so the demo
# never touches the running kernel; the stubs print what would have run.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
bash scripts/build.sh build

work=$(mktemp -d /tmp/zor_demo.XXXXXX)
pid=""
cleanup() {
  if [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null; then kill -KILL "$pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

mkdir -p "$work/bin"
for tool in insmod rmmod; do
  printf '#!/bin/sh\necho "[demo] would run: %s $*"\n' "$tool" > "$work/bin/$tool"
done
printf '#!/bin/sh\nexit 0\n' > "$work/bin/lsmod"
chmod 755 "$work/bin/"*

echo "== starting zor_service -i examples/zor.ini -l $work/log"
PATH="$work/bin:$PATH" ./build/zor_service -i examples/zor.ini -l "$work/log" &
pid=$!
sleep "${ZOR_DEMO_SECONDS:-3}"

echo "== sending SIGTERM"
kill -TERM "$pid"
status=0
wait "$pid" || status=$?
pid=""
echo "== zor_service exited with status $status"

echo "== $work/log/zorsrv.log"
cat "$work/log/zorsrv.log"
exit "$status"
