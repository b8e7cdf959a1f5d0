#!/usr/bin/env bash
# cross.sh ARCH [--sysroot DIR [--cross-prefix PREFIX]] [--build-dir DIR] [--only-byte-order]
#
# Cross-builds the tree for ARCH (arm64, armhf, mipsel, s390x) with Debian's
# cross compiler and runs the unit tests that need no root under qemu-user.
# Installs what ARCH needs first (Debian packages only; nothing when all are
# there): the cross compiler, qemu-user, the target's cJSON (and libcurl and
# libssl where Debian's versions match the build machine's: arm64, armhf)
# through multiarch; GoogleTest is built from /usr/src/googletest with the
# cross compiler.
#
#   arm64, armhf   the whole service and all the unit tests.
#   mipsel, s390x  the part without libcurl and libcrypto (zor_base, xdbc,
#                  zorctl) and its unit tests; the whole service as well when
#                  --sysroot DIR holds the target's libcurl and libcrypto
#                  (headers in DIR/usr/include, libraries in DIR/usr/lib,
#                  built for the cross compiler's C library).
#   --cross-prefix PREFIX  another compiler for ARCH instead of Debian's (a
#                  router SDK's, whose C library is musl: PREFIXg++ is run;
#                  --sysroot then names the SDK's staging directory, which
#                  also gives the loader and C library qemu runs the tests
#                  with).
#   --only-byte-order  the tests whose subject is a byte layout (category
#                  file, xdbc, netlink datagrams, kernel command records,
#                  command socket records):
#                  the stage scripts/test.sh runs on s390x, big-endian.
# Build tree: build-cross/ARCH (or --build-dir).
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
  echo "usage: $0 arm64|armhf|mipsel|s390x [--sysroot DIR [--cross-prefix PREFIX]] [--build-dir DIR] [--only-byte-order]" >&2
  exit 2
}
[ $# -ge 1 ] || usage
arch=$1; shift
sysroot="" prefix="" dir="" only_byte_order=0
while [ $# -gt 0 ]; do
  case $1 in
    --sysroot) sysroot=$(realpath "$2"); shift 2 ;;
    --cross-prefix) prefix=$2; shift 2 ;;
    --build-dir) dir=$2; shift 2 ;;
    --only-byte-order) only_byte_order=1; shift ;;
    *) usage ;;
  esac
done
dir=${dir:-build-cross/$arch}
if [ -n "$prefix" ] && [ -z "$sysroot" ]; then usage; fi

case $arch in
  arm64) triplet=aarch64-linux-gnu ;;
  armhf) triplet=arm-linux-gnueabihf ;;
  mipsel) triplet=mipsel-linux-gnu ;;
  s390x) triplet=s390x-linux-gnu ;;
  *) usage ;;
esac

# The whole service where Debian gives the target's libcurl and libssl, or a
# sysroot does.
with_cloud=OFF
packages=("g++-$triplet" qemu-user googletest "libcjson-dev:$arch")
case $arch in
  arm64 | armhf)
    with_cloud=ON
    # cpp-httplib: the cloud simulator the cloud client's tests run against.
    packages+=("libcurl4-openssl-dev:$arch" "libssl-dev:$arch" "libcpp-httplib-dev:$arch")
    ;;
esac
# Another compiler brings its own C library and libraries in the sysroot.
if [ -n "$prefix" ]; then packages=(qemu-user googletest); fi
# The simulators the cloud tests run against need the target's cpp-httplib:
# Debian's, so not with a sysroot.
simulators=$with_cloud
[ -n "$sysroot" ] && with_cloud=ON
if [ $only_byte_order -eq 1 ]; then with_cloud=OFF simulators=OFF; fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "cross: installing ${missing[*]}"
  if ! dpkg --print-foreign-architectures | grep -qx "$arch"; then
    $SUDO dpkg --add-architecture "$arch"
  fi
  export DEBIAN_FRONTEND=noninteractive
  # A mirror caught mid-sync fails one index; the install says what is missing.
  $SUDO apt-get update -qq || echo "cross: apt-get update reported errors, installing from the lists at hand" >&2
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

toolchain=$PWD/cmake/cross-debian.cmake
jobs=${ZOR_JOBS:-$(nproc)}

# GoogleTest for the target, built once per tree from Debian's sources.
gtest_prefix=$PWD/$dir/googletest
if [ ! -f "$gtest_prefix/lib/cmake/GTest/GTestConfig.cmake" ]; then
  echo "cross: building GoogleTest for $arch"
  cmake -S /usr/src/googletest -B "$dir/googletest-build" -G "Unix Makefiles" \
        -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DZOR_CROSS_ARCH="$arch" \
        ${sysroot:+-DZOR_CROSS_SYSROOT="$sysroot"} ${prefix:+-DZOR_CROSS_PREFIX="$prefix"} \
        -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$gtest_prefix" \
        -DCMAKE_INSTALL_LIBDIR=lib >/dev/null
  cmake --build "$dir/googletest-build" -j "$jobs" >/dev/null
  cmake --install "$dir/googletest-build" >/dev/null
fi

# Unit tests only: the rest need root, namespaces or the simulated world.
# Byte-order stage: the category file's loader and property tests, xdbc, the
# netlink datagrams, the kernel command records and the command socket's
# request and reply records (server and zorctl).
byte_order_targets=(xdb_load_test xdb_property_test xdbc_test xdbc qmx_nlu_test zor_ctrl_test
                    ipc_server_test zorctl_test zorctl)
byte_order_tests='^(XdbLoad|XdbProperty|Xdbc|NluDatagram|NluRequest|ZorCtrl|IpcServer|Zorctl)\.'

if [ ! -f "$dir/CMakeCache.txt" ] || ! grep -q "^ZOR_WITH_CLOUD:BOOL=$with_cloud$" "$dir/CMakeCache.txt"; then
  cmake -S . -B "$dir" -G "Unix Makefiles" -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
        -DZOR_CROSS_ARCH="$arch" ${sysroot:+-DZOR_CROSS_SYSROOT="$sysroot"} \
        ${prefix:+-DZOR_CROSS_PREFIX="$prefix"} -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZOR_WITH_CLOUD=$with_cloud \
        -DZOR_BUILD_SIMULATORS=$simulators -DZOR_BUILD_BENCH=OFF \
        -DGTest_DIR="$gtest_prefix/lib/cmake/GTest" >/dev/null
fi

# qemu-user opens no generic netlink socket (only the routing, uevent and
# audit families): the tests that talk to the kernel through one (the real
# channel, the event workers, the service with the cloud) run natively only.
no_netlink='^(NluSocket|NluSquatted|Workers|ServiceWithCloud)\.'

start=$SECONDS
if [ $only_byte_order -eq 1 ]; then
  for t in "${byte_order_targets[@]}"; do
    cmake --build "$dir" -j "$jobs" --target "$t"
  done
  echo "cross: $arch build $((SECONDS - start)) s"
  start=$SECONDS
  ctest --test-dir "$dir" -L unit -R "$byte_order_tests" -j "$jobs" --output-on-failure --timeout 600
else
  cmake --build "$dir" -j "$jobs"
  echo "cross: $arch build $((SECONDS - start)) s"
  start=$SECONDS
  ctest --test-dir "$dir" -L unit -E "$no_netlink" -j "$jobs" --output-on-failure --timeout 900
fi
echo "cross: $arch tests $((SECONDS - start)) s"
