#!/usr/bin/env bash
# Checks a build of the core without a platform (ORVANE_PLATFORM=none):
#   - no object of the core or of the model runtime references a libcurl, SQLite or OpenSSL
#     symbol: what ships inside a phone app needs none of them;
#   - a shared liborvane exports only the public API: orvane:: names and orvane_ functions.
#
#   scripts/check-core-symbols.sh BUILD_DIR
set -euo pipefail
build=${1:?usage: scripts/check-core-symbols.sh BUILD_DIR}

objects=$(find "$build/CMakeFiles/orvane_core_objects.dir" "$build/coreml" -name '*.o')
count=$(echo "$objects" | wc -l)
# shellcheck disable=SC2086
forbidden=$(nm -u $objects | grep -E ' U (curl_|sqlite3_|SSL_|EVP_|RAND_|OPENSSL_|CRYPTO_|ERR_)' |
  sort -u || true)
if [ -n "$forbidden" ]; then
  echo "the core references platform libraries:"
  echo "$forbidden"
  exit 1
fi
echo "core: $count objects, no libcurl, SQLite or OpenSSL symbol"

library=$(find "$build" -maxdepth 1 -name 'liborvane.so.*.*' | head -1)
if [ -n "$library" ]; then
  exported=$(nm -D --defined-only -C "$library" | awk '$2 ~ /^[TDBVWRui]$/ {$1=$2=""; print}' |
    sed 's/^ *//')
  total=$(echo "$exported" | wc -l)
  # Public names, and what the compiler emits for them (type info, vtables, guards).
  stray=$(echo "$exported" |
    grep -Ev '^(orvane_|(typeinfo( name)? for |vtable for |VTT for |guard variable for )?orvane::)' |
    grep -Ev '^((void |bool )?std::|__gnu_cxx::|(typeinfo( name)? for |vtable for )?std::)' || true)
  if [ -n "$stray" ]; then
    echo "liborvane exports names outside the public API:"
    echo "$stray" | head -40
    exit 1
  fi
  # Every C function orvane.h declares is there: a bridge binds them by name.
  header=$(dirname "$0")/../include/orvane/orvane.h
  missing=$(comm -23 <(grep -oE 'ORVANE_API [^(]*\b(orvane_[a-z0-9_]+)\(' "$header" |
                         grep -oE 'orvane_[a-z0-9_]+\($' | tr -d '(' | sort -u) \
                     <(echo "$exported" | grep -oE '^orvane_[a-z0-9_]+$' | sort -u))
  if [ -n "$missing" ]; then
    echo "liborvane does not export these functions of orvane.h:"
    echo "$missing" | head -40
    exit 1
  fi
  # The engine and its components stay inside (private members of public classes may name
  # them in a parameter list, which is harmless).
  hidden=$(echo "$exported" |
    grep -E '^((typeinfo( name)? for |vtable for )?orvane::(Engine|OrvaneLogSender|CoreMLModelManager|LogEncoder|AccelerometerSensor|TimingCoordinator)\b)' ||
    true)
  if [ -n "$hidden" ]; then
    echo "liborvane exports internal classes:"
    echo "$hidden" | head -20
    exit 1
  fi
  echo "$(basename "$library"): $total exported symbols, all public; SONAME $(objdump -p "$library" | awk '/SONAME/ {print $2}')"
fi
