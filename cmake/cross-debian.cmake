# Toolchain file for Debian's cross compilers (package g++-<triplet>), with
# the target's libraries from Debian multiarch (dpkg --add-architecture) and,
# optionally, a sysroot of the target's own (an OpenWrt SDK staging
# directory, say) holding what Debian cannot give:
#
#   cmake -S . -B build-cross/arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/cross-debian.cmake \
#         -DZOR_CROSS_ARCH=arm64 [-DZOR_CROSS_SYSROOT=DIR]
#
# Test programs run under qemu-user (CMAKE_CROSSCOMPILING_EMULATOR), so CTest
# runs the unit tests as on the build machine. scripts/cross.sh does all of
# this, packages included.
#
# ZOR_CROSS_PREFIX replaces Debian's compiler with another one for the same
# CPU (a router SDK's, for its musl C library: -DZOR_CROSS_PREFIX=
# /path/to/toolchain/bin/mipsel-openwrt-linux-musl-); the target's loader and
# C library then come from ZOR_CROSS_SYSROOT.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZOR_CROSS_ARCH ZOR_CROSS_SYSROOT ZOR_CROSS_PREFIX)
# Whole-project checks (the LTO check) see only the environment.
foreach(v ZOR_CROSS_ARCH ZOR_CROSS_SYSROOT ZOR_CROSS_PREFIX)
  if(DEFINED ${v})
    set(ENV{${v}} "${${v}}")
  else()
    set(${v} "$ENV{${v}}")
  endif()
endforeach()

if(ZOR_CROSS_ARCH STREQUAL "arm64")
  set(triplet aarch64-linux-gnu)
  set(qemu qemu-aarch64)
  set(CMAKE_SYSTEM_PROCESSOR aarch64)
elseif(ZOR_CROSS_ARCH STREQUAL "armhf")
  set(triplet arm-linux-gnueabihf)
  set(qemu qemu-arm)
  set(CMAKE_SYSTEM_PROCESSOR arm)
elseif(ZOR_CROSS_ARCH STREQUAL "mipsel")
  set(triplet mipsel-linux-gnu)
  set(qemu qemu-mipsel)
  set(CMAKE_SYSTEM_PROCESSOR mipsel)
elseif(ZOR_CROSS_ARCH STREQUAL "s390x")
  set(triplet s390x-linux-gnu)
  set(qemu qemu-s390x)
  set(CMAKE_SYSTEM_PROCESSOR s390x)
else()
  message(FATAL_ERROR "ZOR_CROSS_ARCH must be arm64, armhf, mipsel or s390x (got '${ZOR_CROSS_ARCH}')")
endif()

set(CMAKE_SYSTEM_NAME Linux)
if(ZOR_CROSS_PREFIX)
  set(CMAKE_C_COMPILER ${ZOR_CROSS_PREFIX}gcc)
  set(CMAKE_CXX_COMPILER ${ZOR_CROSS_PREFIX}g++)
else()
  set(CMAKE_C_COMPILER ${triplet}-gcc)
  set(CMAKE_CXX_COMPILER ${triplet}-g++)
  set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})
endif()

# The target's C library lives in /usr/<triplet>, its multiarch packages in
# /usr/lib/<triplet> and /usr/include (searched through the root "/").
set(CMAKE_FIND_ROOT_PATH /usr/${triplet} /)
if(ZOR_CROSS_SYSROOT)
  list(PREPEND CMAKE_FIND_ROOT_PATH ${ZOR_CROSS_SYSROOT})
  include_directories(SYSTEM ${ZOR_CROSS_SYSROOT}/usr/include)
  link_directories(${ZOR_CROSS_SYSROOT}/usr/lib)
  # The libraries those need, found at link time as at run time.
  set(CMAKE_EXE_LINKER_FLAGS_INIT
      "-Wl,-rpath-link,${ZOR_CROSS_SYSROOT}/usr/lib/${triplet}:${ZOR_CROSS_SYSROOT}/lib/${triplet}:${ZOR_CROSS_SYSROOT}/usr/lib:${ZOR_CROSS_SYSROOT}/lib")
endif()
# pkg-config (libcurl, cpp-httplib, OpenSSL) reads the target's files only.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${triplet}/pkgconfig:/usr/share/pkgconfig)
if(ZOR_CROSS_SYSROOT)
  set(ENV{PKG_CONFIG_LIBDIR} ${ZOR_CROSS_SYSROOT}/usr/lib/pkgconfig:$ENV{PKG_CONFIG_LIBDIR})
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The target's loader, C library and libstdc++ come from /usr/<triplet> (the
# cross compiler's own); the loader finds the multiarch libraries (cJSON, ...)
# at their own paths after those. With another compiler, all come from the
# sysroot.
if(ZOR_CROSS_PREFIX AND ZOR_CROSS_SYSROOT)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${qemu} -L ${ZOR_CROSS_SYSROOT})
else()
  set(zor_cross_libs /usr/${triplet}/lib)
  if(ZOR_CROSS_SYSROOT)
    string(PREPEND zor_cross_libs ${ZOR_CROSS_SYSROOT}/lib/${triplet}:${ZOR_CROSS_SYSROOT}/usr/lib/${triplet}:${ZOR_CROSS_SYSROOT}/lib:${ZOR_CROSS_SYSROOT}/usr/lib:)
  endif()
  set(CMAKE_CROSSCOMPILING_EMULATOR ${qemu} -L /usr/${triplet} -E LD_LIBRARY_PATH=${zor_cross_libs})
endif()
