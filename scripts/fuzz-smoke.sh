#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, AddressSanitizer + UndefinedBehaviorSanitizer) and runs
# each one briefly from a copy of its seed corpus (fuzz/corpus/<target>/). Prints one line per
# target with its executions and result, then the build and run times; exits non-zero when
# any target crashed, timed out or ran out of memory. Crashing inputs are kept under
# <build>/fuzz-artifacts/<target>/.
#
#   scripts/fuzz-smoke.sh [build-dir]        (default: build-fuzz)
#   FUZZ_BUDGET_SECONDS=200: run time shared by all targets (at least 5 s each);
#   FUZZ_SECONDS: per target instead; FUZZ_JOBS=2 build jobs; FUZZ_CXX=clang++
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
build=$(realpath -m "${1:-build-fuzz}")
jobs=${FUZZ_JOBS:-2}

mapfile -t targets < <(for source in fuzz/*_fuzzer.cc; do basename "$source" .cc; done)
# The whole run stays within the budget however many targets there are.
seconds=${FUZZ_SECONDS:-$((${FUZZ_BUDGET_SECONDS:-200} / ${#targets[@]}))}
if [[ -z ${FUZZ_SECONDS:-} ]] && ((seconds < 5)); then seconds=5; fi

build_start=$SECONDS
CXX=${FUZZ_CXX:-clang++} cmake -S "$root" -B "$build" -G Ninja -DORVANE_BUILD_FUZZERS=ON \
  -DORVANE_BUILD_TESTS=OFF -DORVANE_BUILD_BENCHMARKS=OFF -DORVANE_BUILD_TOOLS=OFF >/dev/null
cmake --build "$build" -j"$jobs" --target "${targets[@]}"
build_time=$((SECONDS - build_start))

work=$(mktemp -d "${TMPDIR:-/tmp}/orvane-fuzz-smoke.XXXXXX")
trap 'rm -rf "$work"' EXIT
failed=0
run_start=$SECONDS
for target in "${targets[@]}"; do
  corpus=$work/$target/corpus
  artifacts=$build/fuzz-artifacts/$target
  mkdir -p "$corpus" "$artifacts"
  if [[ -d fuzz/corpus/$target ]]; then cp -R "fuzz/corpus/$target/." "$corpus/"; fi
  log=$work/$target/log
  result=ok
  if ! "$build/fuzz/$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="$artifacts/" "$corpus" >"$log" 2>&1; then
    failed=1
    if grep -q 'ERROR: libFuzzer: timeout' "$log"; then
      result=TIMEOUT
    elif grep -q 'ERROR: libFuzzer: out-of-memory' "$log"; then
      result=OOM
    else
      result=CRASH
    fi
  fi
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  printf '%-30s %12s execs  %s\n' "$target" "${execs:-?}" "$result"
  if [[ $result != ok ]]; then
    grep -m 1 -E 'ERROR: |runtime error|check failed' "$log" | sed 's/^/    /' || true
    sed -n 's/^.*Test unit written to /    input: /p' "$log"
  fi
done
run_time=$((SECONDS - run_start))
printf 'build %ds, runs %ds (%d targets, %ds each)\n' "$build_time" "$run_time" \
  "${#targets[@]}" "$seconds"
exit "$failed"
