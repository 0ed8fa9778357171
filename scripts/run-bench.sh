#!/usr/bin/env bash
# Runs the benchmarks of a Release build and prints one comparison table; the same rows go to
# bench/results.json. Usage: scripts/run-bench.sh BUILD_DIR [--json]
set -euo pipefail
build=${1:-build-bench}
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
bin="$build/bin"
# The build that usually comes just before leaves files for the kernel to write back, and that
# writing takes a core away from the first benchmarks: push it out first.
sync
# Each benchmark program runs BENCH_PASSES times, one pass after the other; the report takes
# each figure's median over the passes (jxcache's and the peers' alike).
passes=${BENCH_PASSES:-3}
if ! [[ "$passes" =~ ^[1-9][0-9]*$ ]]; then
  echo "run-bench: BENCH_PASSES must be a whole number of at least 1, not '$passes'" >&2
  exit 2
fi
cache_files=()
disk_files=()
for pass in $(seq 1 "$passes"); do
  echo "pass $pass of $passes: cache benchmarks (about a minute)..." >&2
  "$bin/cache_bench" --benchmark_min_time=0.5 --benchmark_out="$out/cache$pass.json" \
    --benchmark_out_format=json >/dev/null
  cache_files+=("$out/cache$pass.json")
  echo "pass $pass of $passes: disk benchmarks..." >&2
  "$bin/disk_bench" --benchmark_out="$out/disk$pass.json" --benchmark_out_format=json >/dev/null
  disk_files+=("$out/disk$pass.json")
done
"$bin/bookkeeping_bench" 100000 > "$out/bookkeeping.json"
echo "replaying a generated trace of 1,000,000 requests..." >&2
"$bin/make_trace" 1000000 42 > "$out/trace.bin"
tool=build/bin/jxcache
[ -x "$build/bin/jxcache" ] && tool="$build/bin/jxcache"
if [ -x "$tool" ]; then
  "$tool" replay "$out/trace.bin" --cache-size 256MiB --json > "$out/replay.json"
fi
extras=()
for extra in "$bin"/*_figures; do
  [ -x "$extra" ] || continue
  "$extra" > "$out/$(basename "$extra").json" && extras+=("$out/$(basename "$extra").json")
done
"$bin/bench_report" bench/results.json "$out/bookkeeping.json" "${cache_files[@]}" "${disk_files[@]}" \
  --replay "$out/replay.json" \
  ${extras[@]+--extra "${extras[@]}"}
if [[ "${2:-}" == "--json" ]]; then cat bench/results.json; fi
