#!/usr/bin/env bash
# Runs every test: the portability check, the suite in a normal build, the
# byte-layout tests on a big-endian CPU (s390x under qemu), then again under
# AddressSanitizer + UndefinedBehaviorSanitizer, then the multi-threaded tests
# (CTest label "mt", build target mt_tests) under ThreadSanitizer, then a
# bounded run of every fuzz target (scripts/fuzz.sh). Fails on any failing
# test, sanitizer report or fuzzing finding.
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

# Every ThreadSanitizer report, from a test or from a program it started (the
# service, its tools), goes to a file here; any file fails the stage.
run_tsan() {
  local dir=build-tsan
  local reports="$PWD/$dir/tsan-reports"
  echo "== tsan build (multi-threaded tests only)"
  ZOR_TARGET=mt_tests bash scripts/build.sh "$dir" -DZOR_SANITIZE=thread
  rm -rf "$reports"
  mkdir -p "$reports"
  echo "== tsan tests"
  if ! TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:log_path=$reports/report" \
      ctest --test-dir "$dir" -L mt --output-on-failure -j 2 --timeout 600; then
    status=1
  fi
  if compgen -G "$reports/report*" >/dev/null; then
    echo "== tsan reports"
    cat "$reports"/report*
    status=1
  fi
}

echo "== portability check"
if ! bash scripts/check_portable.sh; then
  status=1
fi

run_suite normal build
# Byte order: the tests of every byte layout, cross-built for s390x (a
# big-endian CPU) and run under qemu-user.
echo "== s390x (big-endian) byte-order tests"
if ! ZOR_JOBS=2 bash scripts/cross.sh s390x --only-byte-order; then
  status=1
fi

run_suite "asan+ubsan" build-asan -DZOR_SANITIZE=address,undefined -DCMAKE_BUILD_TYPE=Debug
run_tsan

echo "== fuzz (bounded)"
if ! bash scripts/fuzz.sh; then
  status=1
fi

if [ $status -ne 0 ]; then
  echo "test.sh: FAILED"
  exit 1
fi
echo "test.sh: all suites passed"
