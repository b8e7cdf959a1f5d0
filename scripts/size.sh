#!/usr/bin/env bash
# size.sh [ARCH [--sysroot DIR]]: the stripped size of zor_service in three
# builds: RelWithDebInfo, ZOR_SIZE_OPTIMIZED without LTO, and with LTO.
# ARCH: native (default), arm64, armhf, mipsel, s390x (cross builds need what
# scripts/cross.sh installs; mipsel and s390x a sysroot with libcurl and
# libcrypto). Trees: build-size/ARCH-VARIANT. Prints bytes of the stripped
# file and its text, data and bss.
set -euo pipefail
cd "$(dirname "$0")/.."
arch=${1:-native}
shift || true
sysroot=""
if [ "${1:-}" = "--sysroot" ]; then sysroot=$(realpath "$2"); fi

cross=() strip=strip
case $arch in
  native) ;;
  arm64) strip=aarch64-linux-gnu-strip ;;
  armhf) strip=arm-linux-gnueabihf-strip ;;
  mipsel) strip=mipsel-linux-gnu-strip ;;
  s390x) strip=s390x-linux-gnu-strip ;;
  *) echo "usage: $0 [native|arm64|armhf|mipsel|s390x] [--sysroot DIR]" >&2; exit 2 ;;
esac
if [ "$arch" != native ]; then
  cross=(-DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/cross-debian.cmake" -DZOR_CROSS_ARCH="$arch"
         ${sysroot:+-DZOR_CROSS_SYSROOT="$sysroot"})
fi

printf '%-10s %-28s %10s %10s %8s %8s\n' arch build stripped text data bss
for variant in plain os os-lto; do
  case $variant in
    plain) opts=() ;;
    os) opts=(-DZOR_SIZE_OPTIMIZED=ON -DZOR_SIZE_LTO=OFF) ;;
    os-lto) opts=(-DZOR_SIZE_OPTIMIZED=ON -DZOR_SIZE_LTO=ON) ;;
  esac
  dir=build-size/$arch-$variant
  cmake -S . -B "$dir" -G "Unix Makefiles" "${cross[@]}" "${opts[@]}" -DZOR_BUILD_TESTS=OFF \
        -DZOR_BUILD_BENCH=OFF -DZOR_BUILD_SIMULATORS=OFF >/dev/null
  cmake --build "$dir" -j "${ZOR_JOBS:-$(nproc)}" --target zor_service >/dev/null
  "$strip" -o "$dir/zor_service.stripped" "$dir/zor_service"
  read -r text data bss _ < <(size "$dir/zor_service.stripped" | tail -n 1)
  case $variant in
    plain) name="RelWithDebInfo (-O2)" ;;
    os) name="-Os, --gc-sections" ;;
    os-lto) name="-Os, --gc-sections, LTO" ;;
  esac
  printf '%-10s %-28s %10s %10s %8s %8s\n' "$arch" "$name" "$(stat -c %s "$dir/zor_service.stripped")" \
         "$text" "$data" "$bss"
done
