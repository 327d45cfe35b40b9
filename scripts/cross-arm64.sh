#!/usr/bin/env bash
# Cross-compiles the SDK and its test suites for arm64 (aarch64 Linux) with Debian's cross
# toolchain and multiarch library packages, and runs the suites under qemu-user. Run as root on
# Debian 12 (x86-64); installs what is missing first, so a second run only builds and tests.
#
#   scripts/cross-arm64.sh [options]
#     -t, --build-type TYPE  CMake build type (default Release)
#     -B, --build-dir DIR    build directory (default build-arm64)
#     -s, --suites LIST      only these suites, by tests/ folder, comma separated (motion,coreml)
#     -R, --tests REGEX      only the tests whose name matches (ctest -R)
#     -j, --jobs N           parallel compile and test jobs (default 2)
#     --no-install           do not check or install packages
#     --no-test              build only
#
# Exits non-zero when a package, the build or any test fails.
set -euo pipefail
cd "$(dirname "$0")/.."

build_type=Release
build_dir=build-arm64
suites=""
tests_regex=""
jobs=2
install=1
run_tests=1
while [ $# -gt 0 ]; do
  case "$1" in
    -t | --build-type) build_type="$2"; shift 2 ;;
    -B | --build-dir) build_dir="$2"; shift 2 ;;
    -s | --suites) suites="$2"; shift 2 ;;
    -R | --tests) tests_regex="$2"; shift 2 ;;
    -j | --jobs) jobs="$2"; shift 2 ;;
    --no-install) install=0; shift ;;
    --no-test) run_tests=0; shift ;;
    -h | --help) sed -n '2,15p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "cross-arm64: unknown option $1 (see --help)" >&2; exit 2 ;;
  esac
done

# The build machine's tools, and the target's libraries as :arm64 multiarch packages. protoc
# runs here, so it is the host package; apt keeps it at the version of libprotobuf-dev:arm64
# because both come from the same source package. Header-only libraries are architecture
# independent.
host_packages=(
  cmake ninja-build pkg-config crossbuild-essential-arm64 qemu-user protobuf-compiler
  nlohmann-json3-dev libeigen3-dev
)
# libc6-dev brings libc6:arm64, whose loader and libc the tests run with (see the toolchain).
target_packages=(
  libc6-dev zlib1g-dev libprotobuf-dev libssl-dev libsqlite3-dev libcurl4-openssl-dev libgtest-dev
  libgmock-dev libcpp-httplib-dev
)

installed() {
  dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'
}

if [ "$install" -eq 1 ]; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "cross-arm64: run as root to install packages, or pass --no-install" >&2
    exit 1
  fi
  updated=0
  if ! dpkg --print-foreign-architectures | grep -qx arm64; then
    dpkg --add-architecture arm64
    updated=1  # the new architecture's package lists are not there yet
  fi
  missing=()
  for p in "${host_packages[@]}"; do installed "$p" || missing+=("$p"); done
  for p in "${target_packages[@]}"; do installed "$p:arm64" || missing+=("$p:arm64"); done
  if [ ${#missing[@]} -gt 0 ] || [ "$updated" -eq 1 ]; then
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    if [ ${#missing[@]} -gt 0 ]; then
      echo "cross-arm64: installing ${missing[*]}"
      apt-get install -y -qq --no-install-recommends "${missing[@]}"
    fi
  fi
  host_protobuf="$(dpkg-query -W -f='${Version}' protobuf-compiler)"
  target_protobuf="$(dpkg-query -W -f='${Version}' libprotobuf-dev:arm64)"
  if [ "$host_protobuf" != "$target_protobuf" ]; then
    echo "cross-arm64: protoc $host_protobuf does not match libprotobuf $target_protobuf" >&2
    exit 1
  fi
fi

cmake -S . -B "$build_dir" -G Ninja \
  -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/aarch64-linux-gnu.cmake" \
  -DCMAKE_BUILD_TYPE="$build_type" \
  -DORVANE_BUILD_TESTS=ON -DORVANE_BUILD_BENCHMARKS=OFF -DORVANE_BUILD_TOOLS=OFF > /dev/null

targets=()
label_regex=""
if [ -n "$suites" ]; then
  IFS=, read -ra names <<< "$suites"
  for name in "${names[@]}"; do
    if [ ! -d "tests/$name" ] || [ "$name" = testutil ] || [ "$name" = fixtures ]; then
      echo "cross-arm64: no suite tests/$name" >&2
      exit 2
    fi
    targets+=("orvane_${name}_tests")
  done
  label_regex="^($(IFS='|'; echo "${names[*]}"))\$"
fi

start=$SECONDS
cmake --build "$build_dir" -j "$jobs" ${targets[@]:+--target "${targets[@]}"}
echo "cross-arm64: built in $((SECONDS - start)) s"
[ "$run_tests" -eq 1 ] || exit 0

ctest_args=(--test-dir "$build_dir" -j "$jobs" --output-on-failure --timeout 900)
# Each discovered test carries its suite's folder name as a label.
[ -n "$label_regex" ] && ctest_args+=(-L "$label_regex")
[ -n "$tests_regex" ] && ctest_args+=(-R "$tests_regex")
start=$SECONDS
status=0
ctest "${ctest_args[@]}" || status=$?
echo "cross-arm64: tested in $((SECONDS - start)) s"
exit "$status"
