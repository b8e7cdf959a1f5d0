#!/usr/bin/env bash
# Runs every test: the suite in a normal build, then again under
# AddressSanitizer + UndefinedBehaviorSanitizer, then a bounded run of every
# fuzz target (scripts/fuzz.sh). Fails on any failing test, sanitizer
# report or fuzzing finding.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

export ASAN_OPTIONS="abort_on_error=1:detect_leaks=1:strict_string_checks=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"

status=0
run_suite() {
  local name=$1 dir=$2; shift 2
  echo "== $name build"
  bash scripts/build.sh "$dir" "$@"
  echo "== $name tests"
  if ! ctest --test-dir "$dir" --output-on-failure -j 2 --timeout 600; then
    status=1
  fi
}

run_suite normal build
run_suite "asan+ubsan" build-asan -DZOR_SANITIZE=address,undefined -DCMAKE_BUILD_TYPE=Debug

echo "== fuzz (bounded)"
if ! bash scripts/fuzz.sh; then
  status=1
fi

if [ $status -ne 0 ]; then
  echo "test.sh: FAILED"
  exit 1
fi
echo "test.sh: all suites passed"
