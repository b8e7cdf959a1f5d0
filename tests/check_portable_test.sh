#!/usr/bin/env bash
# Rows of source text and whether scripts/check_portable.sh must refuse it.
set -uo pipefail
check="$(dirname "$0")/../scripts/check_portable.sh"
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT

failures=0
row() {  # row NAME EXPECT(pass|fail) TEXT
  local name=$1 expect=$2 text=$3
  mkdir -p "$dir/$name"
  printf '%s\n' "$text" >"$dir/$name/a.cpp"
  if bash "$check" "$dir/$name" >/dev/null 2>&1; then got=pass; else got=fail; fi
  if [ "$got" != "$expect" ]; then
    echo "FAIL $name: expected $expect, got $got"
    failures=$((failures + 1))
  fi
}

row bare_call fail 'void f() { malloc_trim(0); }'
row bare_header fail '#include <malloc.h>'
row arena_option fail 'int x = M_ARENA_MAX;'
row program_name fail 'const char* p = program_invocation_short_name;'
row gnu_strerror_returned fail 'const char* f(char* b) { return strerror_r(1, b, 8); }'
row gnu_strerror_stored fail 'void f(char* b) { const char* t = strerror_r(1, b, 8); }'
row ifdef_guard pass $'#ifdef __GLIBC__\n#include <malloc.h>\nvoid f() { malloc_trim(0); }\n#endif'
row defined_guard pass $'#if defined(__GLIBC__) && 1\nvoid f() { mallopt(M_ARENA_MAX, 1); }\n#endif'
row nested_in_guard pass $'#ifdef __GLIBC__\n#if 1\nvoid f() { malloc_trim(0); }\n#endif\n#endif'
row else_of_guard fail $'#ifdef __GLIBC__\nvoid f() {}\n#else\nvoid f() { malloc_trim(0); }\n#endif'
row else_of_negated pass $'#ifndef __GLIBC__\nvoid f() {}\n#else\nvoid f() { malloc_trim(0); }\n#endif'
row negated_guard fail $'#if !defined(__GLIBC__)\nvoid f() { malloc_trim(0); }\n#endif'
row after_guard fail $'#ifdef __GLIBC__\n#endif\nvoid f() { malloc_trim(0); }'
row other_guard fail $'#ifdef __linux__\nvoid f() { malloc_trim(0); }\n#endif'
row comment_and_string pass $'// malloc_trim gives pages back\n/* mallopt\n M_ARENA_MAX */\nconst char* s = "malloc_trim";'
row longer_name pass 'void my_malloc_trim_stats();'
row gnu_strerror_sizeof fail 'const char* f(char* b) { return strerror_r(1, b, sizeof(b)); }'
row posix_strerror pass 'int f(char* b) { return strerror_r(1, b, 8) == 0; }'

if [ $failures -ne 0 ]; then
  echo "$failures rows failed"
  exit 1
fi
echo "all rows passed"
