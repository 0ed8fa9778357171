#!/usr/bin/env bash
# The cost of one operation of each kind, counted by callgrind: instructions, loads and stores
# that miss the simulated first-level and last-level data caches, and locked instructions
# (atomic read-modify-writes, which also stand for the lock and unlock of a mutex). Each kind runs
# at N and at 2N operations; the difference over N is one operation, without start-up or filling.
# This VM has no hardware counters for perf stat, so the counts are simulated: the cache misses
# follow callgrind's model of this machine's caches, not the silicon.
# Usage: scripts/op-costs.sh [BUILD_DIR] [N]     (valgrind must be installed)
set -euo pipefail
build=${1:-build-bench}
n=${2:-20000}
bin="$build/bin/op_costs"
[ -x "$bin" ] || { echo "op-costs: build $bin first (make bench)" >&2; exit 2; }
command -v valgrind >/dev/null || { echo "op-costs: valgrind is not installed" >&2; exit 2; }
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

# Prints the totals line of a callgrind run as "Ir D1miss LLmiss Ge".
totals() {
  awk '/^events:/ {for (i = 2; i <= NF; i++) col[$i] = i - 1}
       /^(summary|totals):/ {for (i = 2; i <= NF; i++) v[i - 1] = $i}
       END {print v[col["Ir"]], v[col["D1mr"]] + v[col["D1mw"]], v[col["DLmr"]] + v[col["DLmw"]],
            v[col["Ge"]]}' "$1"
}

printf '%-10s %14s %14s %14s %14s\n' "operation" "instructions" "D1 misses" "LL misses" "locked"
for kind in hit compute-hit lru-hit tbb-hit miss lru-miss tbb-miss; do
  ok=1
  for count in "$n" "$((2 * n))"; do
    if ! valgrind --tool=callgrind --cache-sim=yes --collect-bus=yes \
        --callgrind-out-file="$out/$kind.$count" "$bin" "$kind" "$count" >/dev/null 2>"$out/log"; then
      ok=0
    fi
  done
  if [ "$ok" = 0 ]; then
    printf '%-10s %s\n' "$kind" "not measured: $(tail -1 "$out/log")"
    continue
  fi
  read -r i1 d1 l1 g1 < <(totals "$out/$kind.$n")
  read -r i2 d2 l2 g2 < <(totals "$out/$kind.$((2 * n))")
  awk -v n="$n" -v k="$kind" -v i="$((i2 - i1))" -v d="$((d2 - d1))" -v l="$((l2 - l1))" \
      -v g="$((g2 - g1))" 'BEGIN {printf "%-10s %14.1f %14.2f %14.2f %14.2f\n", k, i / n, d / n, l / n, g / n}'
done
