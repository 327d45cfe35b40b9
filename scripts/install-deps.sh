#!/usr/bin/env bash
# Installs the Debian packages the build needs. Does nothing when all are present.
set -euo pipefail

packages=(
  cmake ninja-build g++ clang clang-format clang-tidy pkg-config
  libgtest-dev libgmock-dev libbenchmark-dev
  libssl-dev libsqlite3-dev zlib1g-dev nlohmann-json3-dev libcli11-dev
  libcurl4-openssl-dev libprotobuf-dev protobuf-compiler libcpp-httplib-dev libeigen3-dev
  python3-numpy python3-sklearn python3-protobuf
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "Installing: ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
