#!/usr/bin/env bash
# Builds the benchmark programs in Release and runs every one of them, then prints one table:
# each benchmark's median wall time over a few repetitions and, where the program states one,
# its target.
#
#   scripts/bench.sh [BUILD_DIR]        (default build-rel; extra cmake options in $CMAKE_ARGS)
#
# $ORVANE_BENCH_REPETITIONS sets the repetitions (default 3); $ORVANE_BENCH_DIR is where the
# key-value store benchmarks put their files.
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:-build-rel}"
repetitions="${ORVANE_BENCH_REPETITIONS:-3}"

# shellcheck disable=SC2086
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DORVANE_BUILD_BENCHMARKS=ON \
  -DORVANE_BUILD_TESTS=OFF -DORVANE_BUILD_TOOLS=OFF ${CMAKE_ARGS:-} > /dev/null
cmake --build "$build"

# Targets, in nanoseconds, as the programs' header comments state them. The request and
# cold-start benchmarks time every iteration themselves: their row is the mean of a run, and
# their targets are on the run's median and 99th percentile, counters below (p50_us, p99_us).
declare -A target=(
  [coreml_bench/BM_Predict100TreesDepth6Over400Inputs]=20000
  [coreml_bench/BM_CompileAndLoad]=20000000
  [model_executor_bench/BM_DecisionThroughFeatureProvider]=20000
  [model_executor_bench/BM_CompileAndLoad]=20000000
  [default_signals_bench/BM_AllDefaultSignalsWithYearOfHistory]=100000
  [log_encoding_bench/BM_EncodeLog]=40000
  [upload_queue_bench/BM_AddRecordToQueueOf99]=500000
  [upload_queue_bench/BM_UploadBodyOf100Records]=10000000
)

# Counter targets: the most a counter a program reports (name=value on its median row) may be.
# footprint_bench counts what the SDK adds to a host (see its header comment).
declare -A counterTarget=(
  [footprint_bench/BM_FootprintWithoutSensor:threads_added]=3
  [footprint_bench/BM_FootprintWithSensor:rss_kb_added]=3072
  [request_bench/BM_InstantContextWithBufferedMotion:p50_us]=300
  [request_bench/BM_InstantContextWithBufferedMotion:p99_us]=1000
  [request_bench/BM_FetchContextWindowPresent:p50_us]=1000
  [context_manager_bench/BM_ColdStartOnFullDataFolder:p50_us]=1000
  [upload_queue_bench/BM_AddRecordToQueueOf99:written_ratio]=3
  [upload_queue_bench/BM_AddRecordToQueueOf99:wal_bytes_at_end]=1100000
)
counters="$(mktemp)"
# "program/benchmark:counter value" for each counter on a median row; Google Benchmark prints
# counters with k/M/G suffixes of 1000.
collect_counters() {
  awk -v program="$1" '
    $1 ~ /_median$/ {
      name = $1; sub(/_median$/, "", name)
      gsub(/\/(repeats|iterations|min_time|threads):[^\/]*|\/(real_time|manual_time)/, "", name)
      for (i = 2; i <= NF; i++) {
        if (split($i, pair, "=") != 2) continue
        value = pair[2]; scale = 1
        if (value ~ /k$/) scale = 1e3; else if (value ~ /M$/) scale = 1e6; else if (value ~ /G$/) scale = 1e9
        sub(/[kMG]$/, "", value)
        printf "%s/%s:%s %.6g\n", program, name, pair[1], value * scale
      }
    }' "$2"
}

# The model benchmarks read their model files from the committed fixtures.
export ORVANE_FIXTURES="$PWD/tests/fixtures"
results="$(mktemp)"
trap 'rm -f "$results" "$results.out" "$counters"' EXIT
for program in "$build"/bench/*_bench; do
  name="$(basename "$program")"
  echo "running $name" >&2
  "$program" --benchmark_repetitions="$repetitions" --benchmark_report_aggregates_only=true \
    --benchmark_color=false > "$results.out" 2> /dev/null || echo "$name failed" >&2
  # "NAME_median  TIME UNIT  CPU UNIT  ITERATIONS": the median wall time, in nanoseconds, under
  # the name without the run options that Google Benchmark appends.
  awk -v program="$name" '
    $1 ~ /_median$/ {
      name = $1; sub(/_median$/, "", name)
      gsub(/\/(repeats|iterations|min_time|threads):[^\/]*|\/(real_time|manual_time)/, "", name)
      scale = ($3 == "us") ? 1e3 : ($3 == "ms") ? 1e6 : ($3 == "s") ? 1e9 : 1
      printf "%s/%s %.6g\n", program, name, $2 * scale
    }' "$results.out" >> "$results"
  collect_counters "$name" "$results.out" >> "$counters"
done

human() {
  awk -v ns="$1" 'BEGIN {
    if (ns >= 1e9) printf "%.3g s", ns / 1e9
    else if (ns >= 1e6) printf "%.3g ms", ns / 1e6
    else if (ns >= 1e3) printf "%.3g us", ns / 1e3
    else printf "%.3g ns", ns }'
}

printf '\n%-62s %10s  %s\n' "benchmark" "median" "target"
while read -r key ns; do
  line="$(printf '%-62s %10s' "$key" "$(human "$ns")")"
  base="${key%%/[0-9]*}"  # a parameterised benchmark shares its base name's target
  if [[ -n "${target[$key]:-}" || -n "${target[$base]:-}" ]]; then
    goal="${target[$key]:-${target[$base]}}"
    verdict="$(awk -v a="$ns" -v b="$goal" 'BEGIN { print (a <= b) ? "met" : "MISSED" }')"
    line+="  < $(human "$goal") $verdict"
  fi
  echo "$line"
done < "$results"

if [[ -s "$counters" ]]; then
  printf '\n%-62s %10s  %s\n' "counter" "median" "target"
  while read -r key value; do
    line="$(printf '%-62s %10s' "$key" "$value")"
    if [[ -n "${counterTarget[$key]:-}" ]]; then
      goal="${counterTarget[$key]}"
      verdict="$(awk -v a="$value" -v b="$goal" 'BEGIN { print (a <= b) ? "met" : "MISSED" }')"
      line+="  <= $goal $verdict"
    fi
    echo "$line"
  done < "$counters"
fi
