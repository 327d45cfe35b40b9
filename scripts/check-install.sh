#!/usr/bin/env bash
# Installs a configured and built tree into a temporary prefix, then builds and runs two hosts
# from tests/consumer against the installed files only: a C++ host through
# find_package(Orvane) and a C host through pkg-config.
#
#   scripts/check-install.sh [BUILD_DIR]     (default: build)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"

cmake --install "$build" --prefix "$prefix" > "$work/install.log"
echo "installed into a temporary prefix: $(find "$prefix" -type f | wc -l) files"
for shipped in share/orvane/Orvane.bundle share/orvane/PrivacyInfo.xcprivacy; do
  [ -e "$prefix/$shipped" ] || { echo "not installed: $shipped" >&2; exit 1; }
done
libdir=$(dirname "$(find "$prefix" -name orvane.pc | head -1)")/..
shared=no
if ls "$libdir"/liborvane.so* > /dev/null 2>&1; then shared=yes; fi

# Every run keeps its data in a folder of its own and may only reach a closed loopback port.
run() {
  local data="$work/data-$1"
  mkdir -p "$data"
  shift
  env ORVANE_DATA_DIR="$data" ORVANE_SERVICE_URL=http://127.0.0.1:9 \
    ORVANE_RESOURCE_DIR="$prefix/share/orvane" LD_LIBRARY_PATH="$libdir" "$@"
}

cmake -S tests/consumer/cpp -B "$work/cpp" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_BUILD_TYPE=Release > "$work/cpp-configure.log"
cmake --build "$work/cpp" > "$work/cpp-build.log"
run cpp "$work/cpp/orvane_cpp_host"

export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
cc -std=c99 -Wall -Wextra -Werror -o "$work/c_host" tests/consumer/c/host.c \
  $(pkg-config --cflags --libs orvane)
run c "$work/c_host"
echo "install check passed (shared libraries: $shared)"
