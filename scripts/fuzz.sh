#!/usr/bin/env bash
# fuzz.sh [--long SECONDS] [TARGET...]
#
# Builds the libFuzzer targets (clang 14, AddressSanitizer + UBSan; only the
# fuzz targets, zor_core and the category compiler's library) into
# build-fuzz/ and runs each target over its checked-in seeds in
# fuzz/corpus/<target>/. Fails on any crash, leak, sanitizer report, failed
# check or input that hangs. See docs/fuzzing.md.
#
# Default: a bounded run, the same every time: a fixed number of inputs per
# target (five to ten seconds each; ZOR_FUZZ_RUNS sets one number for all)
# from a fixed random seed (ZOR_FUZZ_SEED), with ZOR_FUZZ_MAX_TIME seconds
# per target (default 30) as a backstop. New inputs go to a scratch corpus
# that is thrown away.
#
# --long SECONDS: each target runs for SECONDS with a fresh random seed and
# keeps what it finds in build-fuzz/corpus-long/<target>/ across runs.
#
# TARGET names (e.g. ini, category) restrict the run to those targets.
# Targets run ZOR_FUZZ_JOBS (default 2) at a time.
# Crash inputs are written to build-fuzz/artifacts/<target>-crash-...; the
# failing command is printed so it can be run again on that input.
set -euo pipefail
cd "$(dirname "$0")/.."

dir=build-fuzz
long=0
if [ "${1:-}" = "--long" ]; then
  [ $# -ge 2 ] && [[ $2 =~ ^[0-9]+$ ]] || { echo "usage: $0 [--long SECONDS] [TARGET...]" >&2; exit 2; }
  long=$2
  shift 2
fi

if ! command -v clang++-14 >/dev/null; then
  echo "fuzz.sh: clang++-14 not found (scripts/setup.sh installs it)" >&2
  exit 2
fi

if [ ! -f "$dir/CMakeCache.txt" ]; then
  CC=clang-14 CXX=clang++-14 cmake -S . -B "$dir" -G "Unix Makefiles" -DZOR_BUILD_FUZZ=ON \
    -DZOR_BUILD_TESTS=OFF -DZOR_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$dir" -j "${ZOR_JOBS:-2}" --target fuzz_targets

if [ $# -gt 0 ]; then
  targets=("$@")
else
  targets=()
  for f in fuzz/*_fuzz.cpp; do
    t=$(basename "$f" .cpp)
    targets+=("${t%_fuzz}")
  done
fi

export ASAN_OPTIONS="detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"

# Inputs per target in the bounded run, by the target's speed.
runs_for() {
  if [ -n "${ZOR_FUZZ_RUNS:-}" ]; then echo "$ZOR_FUZZ_RUNS"; return; fi
  case $1 in
    login_reply) echo 200000 ;;
    cipher_text) echo 150000 ;;
    category|ini) echo 100000 ;;
    ipc|rule_file) echo 70000 ;;
    cloud_verdict|category_match|netlink) echo 40000 ;;
    *) echo 50000 ;;
  esac
}
max_time=${ZOR_FUZZ_MAX_TIME:-30}
seed=${ZOR_FUZZ_SEED:-20240331}
mkdir -p "$dir/artifacts" "$dir/logs"

# Runs one target; its verdict goes to $dir/logs/<target>.result.
run_target() {
  local t=$1 bin="$dir/fuzz/${1}_fuzz" seeds="fuzz/corpus/$1" result="$dir/logs/$1.result"
  if [ ! -x "$bin" ] || [ ! -d "$seeds" ]; then
    echo "FAIL $t: no target or no seeds" >"$result"
    return
  fi
  local work opts
  if [ "$long" -gt 0 ]; then
    work="$dir/corpus-long/$t"
    mkdir -p "$work"
    opts=(-max_total_time="$long")
  else
    work="$dir/corpus/$t"
    rm -rf "$work"
    mkdir -p "$work"
    opts=(-runs="$(runs_for "$t")" -max_total_time="$max_time" -seed="$seed")
  fi
  local log="$dir/logs/$t.log"
  # The service's own messages (a refused file, a syntax error) would fill
  # the log at every input: silenced; findings use their own channel.
  local cmd=("$bin" "${opts[@]}" -timeout=10 -rss_limit_mb=1024 -print_final_stats=1 -close_fd_mask=3
             -artifact_prefix="$dir/artifacts/$t-" "$work" "$seeds")
  local start=$SECONDS rc=0
  "${cmd[@]}" >"$log" 2>&1 || rc=$?
  local took=$((SECONDS - start))
  local done_line execs
  done_line=$(grep -E '^Done [0-9]+ runs' "$log" | tail -n 1 || true)
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  if [ $rc -ne 0 ] || [ -z "$done_line" ] ||
     grep -qE 'ERROR: (AddressSanitizer|LeakSanitizer|UndefinedBehaviorSanitizer|libFuzzer)|runtime error:|fuzz check failed' "$log"; then
    {
      echo "FAIL $t (exit $rc, ${took}s), log: $log"
      grep -E 'ERROR|runtime error|fuzz check failed|SUMMARY|Test unit written' "$log" | head -n 20 || true
      echo "  rerun: ${cmd[*]}"
    } >"$result"
  else
    echo "ok   $t: ${execs:-?} inputs in ${took}s" >"$result"
  fi
}

# Targets run side by side, ZOR_FUZZ_JOBS (default 2) at a time.
jobs=${ZOR_FUZZ_JOBS:-2}
running=0
for t in "${targets[@]}"; do
  rm -f "$dir/logs/$t.result"
  if [ "$running" -ge "$jobs" ]; then
    wait -n || true
    running=$((running - 1))
  fi
  run_target "$t" &
  running=$((running + 1))
done
wait

status=0
for t in "${targets[@]}"; do
  if [ -f "$dir/logs/$t.result" ]; then
    cat "$dir/logs/$t.result"
  else
    echo "FAIL $t: no result"
  fi
  grep -q '^ok ' "$dir/logs/$t.result" 2>/dev/null || status=1
done

if [ $status -ne 0 ]; then
  echo "fuzz.sh: FAILED"
  exit 1
fi
echo "fuzz.sh: all targets clean"
