#!/usr/bin/env bash
# Installs the Debian packages the project needs, only those missing.
# Safe to run any number of times; downloads nothing but Debian packages.
set -euo pipefail

PACKAGES=(
  build-essential cmake g++ pkg-config
  libcurl4-openssl-dev libssl-dev libcjson-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev libcpp-httplib-dev
  clang-14 libclang-rt-14-dev valgrind
  iproute2 util-linux procps kmod openssl
  # Packaging checks; busybox's ash is the shell the router runs init scripts with.
  lintian shellcheck busybox
)
# A comparator for the category-file benchmark only; Debian builds it for
# amd64 alone.
if [ "$(dpkg --print-architecture)" = amd64 ]; then
  PACKAGES+=(libhyperscan-dev)
fi

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "setup: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
