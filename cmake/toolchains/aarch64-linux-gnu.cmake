# Cross build for 64-bit Arm Linux with Debian's aarch64 cross toolchain and multiarch library
# packages (libfoo-dev:arm64); scripts/cross-arm64.sh installs both. Test programs run under
# qemu-user, so ctest and gtest_discover_tests work without binfmt_misc.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(ORVANE_CROSS_TRIPLE aarch64-linux-gnu)
set(CMAKE_C_COMPILER ${ORVANE_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${ORVANE_CROSS_TRIPLE}-g++)
# Multiarch: the compiler already searches /usr/include/aarch64-linux-gnu.
set(CMAKE_LIBRARY_ARCHITECTURE ${ORVANE_CROSS_TRIPLE})

# The cross root holds the libc and libstdc++ linked against; every other target library is a
# multiarch package under /usr/lib/aarch64-linux-gnu, which the host paths reach through
# CMAKE_LIBRARY_ARCHITECTURE (searched before plain lib/), so both roots are searched.
# Programs (protoc) are always the build machine's.
set(CMAKE_FIND_ROOT_PATH /usr/${ORVANE_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# The build machine's pkg-config, reading only the target's .pc files.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/${ORVANE_CROSS_TRIPLE}/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# Runs target programs (test discovery, ctest) on this machine. The loader and libc must come
# from the same glibc build: the multiarch libc6:arm64 that the -dev packages pull in. With
# -L /usr/aarch64-linux-gnu qemu would take the cross root's older ld.so while that ld.so still
# finds libc.so.6 in /lib/aarch64-linux-gnu (missing under the prefix, so qemu falls back to
# the host path), and the mismatched pair hangs in pthread_create. -L / also overrides any
# QEMU_LD_PREFIX in the environment.
find_program(ORVANE_QEMU_AARCH64 NAMES qemu-aarch64 qemu-aarch64-static REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${ORVANE_QEMU_AARCH64} -L /)
