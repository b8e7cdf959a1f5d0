#!/usr/bin/env bash
# check_portable.sh [FILE|DIR...]: fails when a C library interface that only
# glibc has (or that behaves differently elsewhere) is used outside a block
# guarded by __GLIBC__. Routers mostly run musl, so the service must build
# and behave there too: such a call belongs in `#ifdef __GLIBC__` (or
# `#if defined(__GLIBC__)`) with a portable fallback in its #else.
# Default: the service's sources and the tools installed with it.
set -euo pipefail
cd "$(dirname "$0")/.."

# Whole words, or a header name; extend the list as such interfaces appear.
names='mallopt|malloc_trim|malloc_stats|malloc_info|mallinfo2?|M_ARENA_MAX|M_TRIM_THRESHOLD|M_MMAP_THRESHOLD'
names+='|program_invocation_name|program_invocation_short_name'
names+='|backtrace|backtrace_symbols|backtrace_symbols_fd|rawmemchr|canonicalize_file_name'
names+='|error_at_line|argp_parse|obstack_init|fcloseall|euidaccess|gnu_get_libc_version'
names+='|strerrorname_np|strerrordesc_np|sigabbrev_np|sigdescr_np|pthread_tryjoin_np|posix_spawn_file_actions_addclosefrom_np'
headers='malloc\.h|execinfo\.h|error\.h|argp\.h|obstack\.h|gnu/libc-version\.h'

if [ $# -eq 0 ]; then
  set -- src tools/xdbc tools/zorctl
fi
mapfile -t files < <(find "$@" -type f \( -name '*.cpp' -o -name '*.h' -o -name '*.c' \) | sort)

status=0
for f in "${files[@]}"; do
  # A stack of open conditionals: 1 where the branch being read is taken
  # only with glibc. The GNU strerror_r is caught where its result is used
  # as the text itself (returned or stored in a pointer).
  awk -v names="$names" -v headers="$headers" '
    function guarded(  i) { for (i = 1; i <= depth; i++) if (glibc[i]) return 1; return 0 }
    # 1: the branch is taken only with glibc; -1: only without; 0: other.
    function kind(cond) {
      if (cond !~ /__GLIBC__/) return 0
      if (cond ~ /^ifndef/ || cond ~ /![ \t]*(defined)?[ \t]*\(?[ \t]*__GLIBC__/) return -1
      return 1
    }
    {
      line = $0
      if (in_comment) { if (line !~ /\*\//) next; sub(/.*\*\//, "", line); in_comment = 0 }
      gsub(/\/\*.*\*\//, "", line)
      if (line ~ /\/\*/) { sub(/\/\*.*/, "", line); in_comment = 1 }
      sub(/\/\/.*/, "", line)
      gsub(/"([^"\\]|\\.)*"/, "\"\"", line)
    }
    line ~ /^[ \t]*#[ \t]*if/ {
      cond = line; sub(/^[ \t]*#[ \t]*/, "", cond)
      k = kind(cond); depth++; glibc[depth] = (k == 1); other[depth] = (k == -1); next
    }
    line ~ /^[ \t]*#[ \t]*else/ { glibc[depth] = other[depth]; other[depth] = 0; next }
    line ~ /^[ \t]*#[ \t]*elif/ { glibc[depth] = 0; other[depth] = 0; next }
    line ~ /^[ \t]*#[ \t]*endif/ { if (depth > 0) depth--; next }
    guarded() { next }
    line ~ /^[ \t]*#[ \t]*include[ \t]*</ {
      if (line ~ ("<(" headers ")>")) { printf "%s:%d: %s\n", FILENAME, FNR, $0; bad = 1 }
      next
    }
    line ~ ("(^|[^A-Za-z0-9_])(" names ")([^A-Za-z0-9_]|$)") ||
    line ~ /(return|char[ \t]*\*[ \t]*[A-Za-z_0-9]+[ \t]*=)[ \t]*strerror_r[ \t]*\(([^()]|\([^()]*\))*\)[ \t]*;/ {
      printf "%s:%d: %s\n", FILENAME, FNR, $0; bad = 1
    }
    END { exit bad }
  ' "$f" || status=1
done

if [ $status -ne 0 ]; then
  echo "check_portable: glibc-only interfaces outside an __GLIBC__ guard (above)" >&2
  exit 1
fi
echo "check_portable: ${#files[@]} files, no unguarded glibc-only interface"
