#!/usr/bin/env bash
# openwrt_test.sh SOURCE_DIR: the OpenWrt init script's start and triggers,
# run with stand-in UCI and procd functions (openwrt/stubs.sh) under every
# router-like shell here (dash as sh, busybox ash when installed):
#   - every option set: the INI it writes (mode 0600) and the procd instance
#     it declares equal the expected files; the stale command socket goes
#     when no instance runs and stays when one does; writable_root is handed
#     to ipc_group;
#   - a reload: SIGHUP to the running service before the same declaration;
#   - the shipped UCI file: disabled, so nothing is written or started; with
#     an account added, the INI of the shipped defaults;
#   - values the INI cannot carry, a missing required option and a bad log
#     level: refused with a message naming the option, nothing started, the
#     previous INI left as it was.
# Also runs shellcheck over the OpenWrt files (skipped with a message when it
# is missing).
set -uo pipefail
src=$1
pkg=$src/packaging/openwrt/zor-service
fixtures=$src/tests/packaging/openwrt

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
failures=0
fail() { echo "FAIL [$shell_name/$case_name]: $*"; failures=$((failures + 1)); }

shells=("sh")
if command -v busybox >/dev/null; then
    shells+=("busybox ash")
else
    echo "note: busybox is not installed, the script runs under sh only (scripts/setup.sh installs it)"
fi

# run_case NAME UCI_TEXT RUNNING [ENTRY]: prepares a work directory with the
# init script (its INI path moved into the directory) and the UCI file, then
# runs ENTRY (start_service unless given) and service_triggers; the calls
# are recorded in $work/procd.
run_case() {
    case_name=$1
    work=$tmp/${shell_name// /_}/$case_name
    mkdir -p "$work/uci" "$work/run" "$work/var/etc"
    sed "s|^ZOR_INI=.*|ZOR_INI=$work/var/etc/zor.ini|" "$pkg/files/zor.init" > "$work/zor.init"
    if [ "$(grep -c "^ZOR_INI=$work/" "$work/zor.init")" != 1 ]; then
        fail "the init script has no single ZOR_INI= line to redirect"
        return
    fi
    printf '%s\n' "$2" | sed "s|@WORK@|$work|g" > "$work/uci/zor"
    : > "$work/procd"
    # The script below is expanded by the shell under test, not here.
    # shellcheck disable=SC2016
    PROCD_LOG=$work/procd UCI_DIR=$work/uci ZOR_TEST_RUNNING=$3 $shell -c '
        . "$1"; . "$2"
        $3
        echo "$3=$?" >> "$PROCD_LOG"
        service_triggers' zor "$fixtures/stubs.sh" "$work/zor.init" "${4:-start_service}" \
        > "$work/stdout" 2> "$work/stderr"
}

# expect_file EXPECTED ACTUAL: equal once @WORK@ stands for the work directory.
expect_file() {
    if [ ! -f "$2" ]; then
        fail "$(basename "$2") was not written"
    elif ! diff -u <(sed "s|@WORK@|$work|g" "$1") "$2" > "$work/diff"; then
        fail "$(basename "$2") differs from $(basename "$1"):"
        cat "$work/diff"
    fi
}

full=$(cat "$fixtures/full.uci")
shipped=$(cat "$pkg/files/zor.config")
account="	option enabled '1'
	option auth_id 'acct-17'
	option auth_pwd 'pw'
	option host 'router-7'
	option product 'zr-100'
	option server 'cloud.example.net:443'"

refusals=(
    "line_break|auth_pwd|'two"$'\n'"lines'"
    "carriage_return|auth_pwd|'pw"$'\r'"'"
    "trailing_backslash|host|'router\\'"
    "leading_blank|auth_id|' acct'"
    "trailing_tab|product|'zr"$'\t'"'"
    "missing_server|server|''"
    "log_level_7|log_level|'7'"
    "log_level_word|log_level|'info'"
)

for shell_name in "${shells[@]}"; do
    shell=$shell_name

    # Every option, no instance running, a stale socket in writable_root.
    case_name=full; work=$tmp/${shell// /_}/full
    mkdir -p "$work/run" && touch "$work/run/.ipc.socket"
    run_case full "$full" 0
    expect_file "$fixtures/full.ini" "$work/var/etc/zor.ini"
    expect_file "$fixtures/full.procd" "$work/procd"
    [ "$(stat -c %a "$work/var/etc/zor.ini" 2>/dev/null)" = 600 ] || fail "INI mode is not 600"
    [ "$(stat -c %a "$work/log" 2>/dev/null)" = 750 ] || fail "log directory not made with mode 750"
    [ ! -e "$work/run/.ipc.socket" ] || fail "stale socket kept although no instance runs"
    [ "$(stat -c %a "$work/run")" = 750 ] || fail "writable_root (given to ipc_group) is not mode 750"
    [ ! -s "$work/stderr" ] || fail "messages: $(cat "$work/stderr")"

    # A reload: SIGHUP to the running service, then the same declaration
    # inside rc.common's wrapper; the running instance's socket stays.
    work=$tmp/${shell// /_}/reload
    mkdir -p "$work/run" && touch "$work/run/.ipc.socket"
    run_case reload "$full" 1 reload_service
    [ -e "$work/run/.ipc.socket" ] || fail "the running instance's socket was removed"
    expect_file "$fixtures/full.ini" "$work/var/etc/zor.ini"
    { printf 'send_signal [zor]\nrc_procd [start_service]\n'
      sed 's/^start_service=0$/reload_service=0/' "$fixtures/full.procd"; } > "$work/expected"
    expect_file "$work/expected" "$work/procd"

    # The shipped UCI file starts nothing until enabled.
    run_case shipped "$shipped" 1
    [ ! -e "$work/var/etc/zor.ini" ] || fail "INI written although disabled"
    printf 'start_service=0\nreload_trigger [zor]\n' > "$work/expected"
    expect_file "$work/expected" "$work/procd"

    # Its defaults, once an account is added.
    run_case shipped_account "$shipped
$account" 1
    expect_file "$fixtures/default.ini" "$work/var/etc/zor.ini"

    # Refusals: name, option, value as UCI text ('' = option emptied).
    for row in "${refusals[@]}"; do
        name=${row%%|*} rest=${row#*|}
        option=${rest%%|*} value=${rest#*|}
        work=$tmp/${shell// /_}/$name
        mkdir -p "$work/var/etc" && echo previous > "$work/var/etc/zor.ini"
        run_case "$name" "$full
	option $option $value" 0
        grep -q '^open_instance' "$work/procd" && fail "an instance was declared"
        grep -q '^start_service=1$' "$work/procd" || fail "start_service did not fail"
        grep -q "^logger .*option $option" "$work/procd" || fail "no log line names option $option"
        grep -q "option $option" "$work/stderr" || fail "no message on stderr names option $option"
        [ "$(cat "$work/var/etc/zor.ini")" = previous ] || fail "the previous INI was replaced"
        leftover=$(find "$work/var/etc" -type f ! -name zor.ini)
        [ -z "$leftover" ] || fail "left behind: $leftover"
    done
done

case_name=shellcheck shell_name=-
if command -v shellcheck >/dev/null; then
    shellcheck "$pkg/files/zor.init" "$fixtures/stubs.sh" "$0" || fail "shellcheck findings above"
else
    echo "SKIP shellcheck: not installed (scripts/setup.sh installs it)"
fi

if [ $failures -ne 0 ]; then
    echo "$failures check(s) failed"
    exit 1
fi
echo "OpenWrt init script: every check passed under: ${shells[*]}"
