#!/usr/bin/env bash
# build.sh DIR [cmake options...]: configures (once) and builds the tree into DIR.
# ZOR_TARGET=<target> builds only that target.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=$1; shift
jobs=${ZOR_JOBS:-$(nproc)}
if [ ! -f "$dir/CMakeCache.txt" ]; then
  cmake -S . -B "$dir" -G "Unix Makefiles" "$@" >/dev/null
fi
cmake --build "$dir" -j "$jobs" ${ZOR_TARGET:+--target "$ZOR_TARGET"}
