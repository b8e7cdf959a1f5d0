#!/usr/bin/env bash
# package.sh [BUILD_DIR [OUT_DIR]]: builds the Debian package of the service.
#
# Configures BUILD_DIR (default build-deb) for the prefix /usr (Release,
# no tests, benchmarks or simulators), builds the installed programs with at
# most ZOR_JOBS (default 2) jobs, runs `cpack -G DEB` into OUT_DIR (default
# BUILD_DIR/pkg) and lintian on the result. Prints lintian's findings and, last,
# the path of the .deb. Exit status 1 when lintian reports an error.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

dir=${1:-build-deb}
out=${2:-$dir/pkg}
# Configured every time (cheap once done), so that a tree configured by an
# older checkout knows every target named below.
# Debian's hardening flags, all of them (bind-now included).
flags() { DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --get "$1"; }
cmake -S . -B "$dir" -G "Unix Makefiles" -DCMAKE_INSTALL_PREFIX=/usr \
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_SKIP_INSTALL_ALL_DEPENDENCY=ON \
    -DCMAKE_C_FLAGS="$(flags CFLAGS) $(flags CPPFLAGS)" \
    -DCMAKE_CXX_FLAGS="$(flags CXXFLAGS) $(flags CPPFLAGS)" \
    -DCMAKE_EXE_LINKER_FLAGS="$(flags LDFLAGS)" \
    -DZOR_BUILD_TESTS=OFF -DZOR_BUILD_BENCH=OFF -DZOR_BUILD_SIMULATORS=OFF >/dev/null
cmake --build "$dir" -j "${ZOR_JOBS:-2}" --target zor_service zorctl xdbc zor_gzipped_docs >/dev/null

mkdir -p "$out"
out=$(cd "$out" && pwd)
rm -f "$out"/zor-service_*.deb
if ! (cd "$dir" && cpack -G DEB -B "$out") > "$out/cpack.log" 2>&1; then
    cat "$out/cpack.log" >&2
    exit 2
fi
debs=("$out"/zor-service_*.deb)
deb=${debs[0]}
[ -f "$deb" ] || { echo "package.sh: cpack made no package in $out" >&2; exit 2; }

status=0
lintian --fail-on error "$deb" || status=1
echo "$deb"
exit $status
