#!/usr/bin/env bash
# The stripped size a minimal host adds by linking the SDK statically: the core built alone
# (no platform), installed into a temporary prefix, tests/consumer/cpp built against it and
# stripped, minus tests/consumer/baseline built the same way without the SDK.
#
#   scripts/measure-host-size.sh [--arm64] [--lto] [--build-type TYPE] [--keep DIR]
#
# --arm64 cross-compiles with Debian's aarch64 toolchain (scripts/cross-arm64.sh installs it).
# --lto builds the core and the host with link-time optimisation, as an app that compiles the
# SDK into itself may.
# The build type defaults to MinSizeRel, the phone build. protobuf-lite is linked statically
# too, as an app that ships the SDK must carry it; libstdc++ and zlib stay shared, as every
# phone system has them.
set -euo pipefail
cd "$(dirname "$0")/.."
arch=x86-64
build_type=MinSizeRel
lto=0
work=""
while [ $# -gt 0 ]; do
  case "$1" in
    --arm64) arch=arm64; shift ;;
    --lto) lto=1; shift ;;
    --build-type) build_type="$2"; shift 2 ;;
    --keep) work="$2"; shift 2 ;;
    -h | --help) sed -n '2,12p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "measure-host-size: unknown option $1" >&2; exit 2 ;;
  esac
done
if [ -z "$work" ]; then
  work=$(mktemp -d)
  trap 'rm -rf "$work"' EXIT
fi
mkdir -p "$work"

cxx=g++
strip=strip
toolchain=()
if [ "$arch" = arm64 ]; then
  cxx=aarch64-linux-gnu-g++
  strip=aarch64-linux-gnu-strip
  toolchain=(-DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/aarch64-linux-gnu.cmake")
fi
launcher=()
if command -v ccache > /dev/null; then
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi

cmake -S . -B "$work/core" -G Ninja "${toolchain[@]}" "${launcher[@]}" \
  -DCMAKE_BUILD_TYPE="$build_type" -DORVANE_PLATFORM=none -DORVANE_BUILD_TESTS=OFF \
  -DORVANE_BUILD_BENCHMARKS=OFF -DORVANE_BUILD_TOOLS=OFF \
  -DCMAKE_INTERPROCEDURAL_OPTIMIZATION=$([ $lto = 1 ] && echo ON || echo OFF) \
  > "$work/core-configure.log"
cmake --build "$work/core" > "$work/core-build.log"
cmake --install "$work/core" --prefix "$work/prefix" > "$work/install.log"
libdir=$(dirname "$(find "$work/prefix" -name liborvane.a | head -1)")

# Flags as the consumer's CMake build type would give them, plus section garbage collection.
case "$build_type" in
  MinSizeRel) opt=-Os ;;
  Release) opt=-O3 ;;
  *) opt=-O2 ;;
esac
flags=(-std=c++20 "$opt" -DNDEBUG -ffunction-sections -fdata-sections -pthread)
if [ $lto = 1 ]; then flags+=(-flto=auto); fi
multiarch=$($cxx -print-multiarch)
protobuf_lite=/usr/lib/$multiarch/libprotobuf-lite.a

$cxx "${flags[@]}" -o "$work/baseline" tests/consumer/baseline/baseline.cc -Wl,--gc-sections
$cxx "${flags[@]}" -I"$work/prefix/include" -o "$work/host" tests/consumer/cpp/host.cc \
  -Wl,--gc-sections "$libdir/liborvane.a" "$libdir/liborvane_coreml.a" "$protobuf_lite" -lz
$strip -o "$work/baseline.stripped" "$work/baseline"
$strip -o "$work/host.stripped" "$work/host"

# protobuf-lite's share: the host again with protobuf-lite shared.
$cxx "${flags[@]}" -I"$work/prefix/include" -o "$work/host-shared-pb" tests/consumer/cpp/host.cc \
  -Wl,--gc-sections "$libdir/liborvane.a" "$libdir/liborvane_coreml.a" -lprotobuf-lite -lz
$strip -o "$work/host-shared-pb.stripped" "$work/host-shared-pb"

size() { stat -c %s "$1"; }
base=$(size "$work/baseline.stripped")
host=$(size "$work/host.stripped")
without_pb=$(size "$work/host-shared-pb.stripped")
mb() { awk -v b="$1" 'BEGIN { printf "%.2f MB", b / 1000000 }'; }
label=$build_type
if [ $lto = 1 ]; then label="$build_type with LTO"; fi
echo "$arch $label: a minimal host adds $(mb $((host - base))) ($host - $base bytes)," \
  "of which protobuf-lite $(mb $((host - without_pb)))"
