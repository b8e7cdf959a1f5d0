#!/usr/bin/env bash
# deb_test.sh SOURCE_DIR PACKAGE_BUILD_DIR: builds the Debian package with
# scripts/package.sh (build tree kept in PACKAGE_BUILD_DIR so reruns are
# incremental, the package itself in a fresh temporary directory) and checks
# what a Debian administrator would: lintian without errors, every file where
# Debian puts it with its owner and mode, nothing else (no simulator, no test
# program), the conffiles, the library dependencies, a changelog of the
# package's own version, and a systemd unit that systemd accepts and that
# agrees with the configuration it starts the service with and reloads it
# with SIGHUP.
# Exit status 77 (skipped) when a Debian packaging tool is missing.
set -uo pipefail
src=$1
build=$2

for tool in cpack dpkg-deb dpkg-shlibdeps lintian systemd-analyze; do
    if ! command -v "$tool" >/dev/null; then
        echo "SKIP: $tool is not installed (scripts/setup.sh installs it)"
        exit 77
    fi
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

if ! bash "$src/scripts/package.sh" "$build" "$work/out" > "$work/package.log" 2>&1; then
    cat "$work/package.log"
    fail "scripts/package.sh failed (lintian error or build failure, above)"
fi
debs=("$work"/out/zor-service_*.deb)
deb=${debs[0]}
if [ ! -f "$deb" ]; then
    echo "FAIL: no package was built"
    exit 1
fi
echo "lintian's findings (warnings are allowed, errors are not):"
grep -E '^[EWI]: ' "$work/package.log" || echo "  none"

# --- file list: path, mode, owner -------------------------------------------
dpkg-deb -c "$deb" | awk '{ sub(/^\./, "", $6); print $6, $1, $2 }' > "$work/list"
while read -r path mode owner; do
    got=$(awk -v p="$path" '$1 == p { print $2, $3 }' "$work/list")
    [ "$got" = "$mode $owner" ] || fail "$path: expected $mode $owner, package has '${got:-nothing}'"
done <<'EOF'
/usr/sbin/zor_service -rwxr-xr-x root/root
/usr/bin/zorctl -rwxr-xr-x root/root
/usr/bin/xdbc -rwxr-xr-x root/root
/etc/zor/zor.ini -rw-r----- root/root
/etc/default/zor-service -rw-r--r-- root/root
/lib/systemd/system/zor-service.service -rw-r--r-- root/root
/usr/share/doc/zor-service/copyright -rw-r--r-- root/root
/usr/share/doc/zor-service/changelog.Debian.gz -rw-r--r-- root/root
/usr/share/doc/zor-service/router.md -rw-r--r-- root/root
/usr/share/doc/zor-service/README.md -rw-r--r-- root/root
/usr/share/doc/zor-service/security.md -rw-r--r-- root/root
/usr/share/lintian/overrides/zor-service -rw-r--r-- root/root
/usr/share/man/man8/zor_service.8.gz -rw-r--r-- root/root
/usr/share/man/man1/zorctl.1.gz -rw-r--r-- root/root
/usr/share/man/man1/xdbc.1.gz -rw-r--r-- root/root
EOF
# Nothing outside the places above; directories only on the way to them.
awk '$2 !~ /^d/ && $1 !~ "^/(usr/s?bin|etc/zor|etc/default|lib/systemd/system|usr/share/doc/zor-service|usr/share/lintian/overrides|usr/share/man/man[18])/[^/]+$" { print $1 }' \
    "$work/list" > "$work/stray"
[ ! -s "$work/stray" ] || fail "files outside the expected places: $(tr '\n' ' ' < "$work/stray")"
awk '$3 != "root/root" { print $1 }' "$work/list" > "$work/owners"
[ ! -s "$work/owners" ] || fail "not owned by root: $(tr '\n' ' ' < "$work/owners")"

# --- control data --------------------------------------------------------------
dpkg-deb --ctrl-tarfile "$deb" | tar -xO ./conffiles > "$work/conffiles" 2>/dev/null
printf '/etc/zor/zor.ini\n/etc/default/zor-service\n' > "$work/conffiles.expected"
diff -u "$work/conffiles.expected" "$work/conffiles" || fail "conffiles differ"
depends=$(dpkg-deb -f "$deb" Depends)
for lib in libc6 libcurl4 libssl3 libcjson1 libstdc++6; do
    [[ ", $depends," == *", $lib "* ]] || fail "Depends lacks $lib: $depends"
done
version=$(dpkg-deb -f "$deb" Version)
mkdir "$work/root"
dpkg-deb -x "$deb" "$work/root"
first=$(gzip -dc "$work/root/usr/share/doc/zor-service/changelog.Debian.gz" | head -n 1)
[[ $first == "zor-service ($version) "* ]] || fail "changelog starts '$first', package version $version"

# --- the unit ------------------------------------------------------------------
unit="$work/root/lib/systemd/system/zor-service.service"
key() { sed -n "s/^$1=//p" "$unit"; }
[ "$(key Type)" = simple ] || fail "Type=$(key Type), the service runs in the foreground"
[ "$(key Restart)" = on-failure ] || fail "Restart=$(key Restart)"
# Reload asks the service over its socket, with the configuration ExecStart
# names, so that systemctl reload fails when the service keeps its old file.
read -r -a exec_reload <<< "$(key ExecReload)"
[ -x "$work/root${exec_reload[0]}" ] || fail "ExecReload names ${exec_reload[0]}, not in the package"
[ "${exec_reload[*]:1}" = "-i /etc/zor/zor.ini reload" ] || fail "ExecReload=$(key ExecReload), not zorctl reload"
read -r -a exec_start <<< "$(key ExecStart)"
[ -x "$work/root${exec_start[0]}" ] || fail "ExecStart names ${exec_start[0]}, not in the package"
config="" logdir=""
for ((i = 1; i < ${#exec_start[@]}; i++)); do
    case ${exec_start[i]} in
        -i) config=${exec_start[i + 1]} ;;
        -l) logdir=${exec_start[i + 1]} ;;
        -d) fail "ExecStart turns the service into a daemon (-d)" ;;
    esac
done
[ -f "$work/root$config" ] || fail "ExecStart's configuration '$config' is not in the package"
writable_root=$(sed -n 's/^writable_root *= *//p' "$work/root$config")
[ "$writable_root" = "/run/$(key RuntimeDirectory)" ] ||
    fail "writable_root $writable_root is not the unit's RuntimeDirectory /run/$(key RuntimeDirectory)"
[ "$logdir" = "/var/log/$(key LogsDirectory)" ] ||
    fail "log directory $logdir is not the unit's LogsDirectory /var/log/$(key LogsDirectory)"
[ "$(key CapabilityBoundingSet)" = "CAP_SYS_MODULE CAP_CHOWN" ] ||
    fail "CapabilityBoundingSet=$(key CapabilityBoundingSet)"
# systemd's own reading of the unit, against this machine's units; any
# complaint (unknown key, bad value) fails.
cp -rn /lib/systemd/system/. "$work/root/lib/systemd/system/" 2>/dev/null
if ! systemd-analyze verify --root="$work/root" zor-service.service > "$work/verify" 2>&1 ||
        [ -s "$work/verify" ]; then
    cat "$work/verify"
    fail "systemd-analyze verify complained about the unit"
fi
systemd-analyze security --offline=true --root="$work/root" zor-service.service 2>/dev/null |
    sed -n 's/^→ //p'

if [ $failures -ne 0 ]; then
    echo "$failures check(s) failed"
    exit 1
fi
echo "package $(basename "$deb"): every check passed"
