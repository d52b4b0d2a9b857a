#!/usr/bin/env bash
# kavrel-shadow metrics beside kavrel-shadow status on one pool of
# METRICS_POOL catalogs (gen_catalog, then kavrel-shadow init and backup
# --all): the metrics inspect every database as status does and must cost at
# most 1.3 times as much. Then the size of the --per-database output, measured
# on that pool and carried over to 10,000 catalogs by its bytes per database
# (a pool of 10,000 takes long to build; METRICS_SIZE_POOL=10000 builds one
# and measures it directly).
#
#   BUILD_DIR          build with -DKAVREL_BUILD_BENCH=ON (default build-bench)
#   BENCH_DATA         where the pools go (default $BUILD_DIR/bench-data; kept)
#   BENCH_QUICK=1      100 catalogs
#   METRICS_POOL       CATALOGS:ROWS (default 1000:100)
#   METRICS_RUNS       rounds, the two commands alternating (default 7)
#   METRICS_SIZE_POOL  catalogs of a second pool whose output is measured
#   BENCH_RESULTS      a bench_runner results file to append the rows to
set -euo pipefail

cd "$(dirname "$0")/.."
BUILD_DIR=${BUILD_DIR:-build-bench}
QUICK=${BENCH_QUICK:-0}
[ "$QUICK" = "0" ] && QUICK=""
POOL=${METRICS_POOL:-$([ -n "$QUICK" ] && echo 100:100 || echo 1000:100)}
RUNS=${METRICS_RUNS:-7}
N=${POOL%%:*} M=${POOL##*:}
GEN="$BUILD_DIR/bench/gen_catalog"
SHADOW="$BUILD_DIR/tool/kavrel-shadow"
missing=""
[ -x "$GEN" ] || missing="$missing gen_catalog"
[ -x "$SHADOW" ] || missing="$missing kavrel-shadow"
if [ -n "$missing" ]; then
  echo "bench_metrics: building$missing in $BUILD_DIR" >&2
  # shellcheck disable=SC2086
  cmake --build "$BUILD_DIR" -j"${JOBS:-2}" --target $missing
fi
mkdir -p "${BENCH_DATA:-$BUILD_DIR/bench-data}"
DATA=$(cd "${BENCH_DATA:-$BUILD_DIR/bench-data}" && pwd)
export DCT_LOG=none

# pool N M: a pool of N catalogs of M rows with its shadow, in $P.
pool() {
  P="$DATA/metrics-${1}x${2}"
  export VELKREGISTRY="$P/registry.cfg"
  if [ "$(cat "$P/.metrics-ready" 2> /dev/null)" != "$1 $2" ]; then
    echo "bench_metrics: generating a pool of $1 catalogs x $2 rows and its shadow" >&2
    rm -rf "$P"
    "$GEN" "$P" "$1" "$2"
    "$SHADOW" init > /dev/null
    "$SHADOW" backup --all > /dev/null
    echo "$1 $2" > "$P/.metrics-ready"
  fi
}

now() { date +%s.%N; }
# seconds CMD...: runs CMD (its output thrown away), prints the seconds.
seconds() {
  local t0 t1
  t0=$(now)
  "$@" > /dev/null
  t1=$(now)
  awk -v a="$t0" -v b="$t1" 'BEGIN { printf "%.6f\n", b - a }'
}
median() { printf '%s\n' "$@" | sort -g | awk '{ v[NR] = $1 } END { if (NR % 2) print v[(NR + 1) / 2]; else print (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

pool "$N" "$M"
SIZE="$N catalogs x $M rows"
"$SHADOW" status > /dev/null
"$SHADOW" metrics > /dev/null
S=() K=()
for run in $(seq "$RUNS"); do
  S+=("$(seconds "$SHADOW" status)")
  K+=("$(seconds "$SHADOW" metrics)")
done
MS=$(median "${S[@]}") MK=$(median "${K[@]}")
RATIO=$(awk -v k="$MK" -v b="$MS" 'BEGIN { printf "%.3f", k / b }')
printf '== metrics vs status %s: metrics %.6f s, status %.6f s, ratio %s (target 1.3)\n' "$SIZE" "$MK" "$MS" "$RATIO" >&2
if [ -n "${BENCH_RESULTS:-}" ]; then
  # op, size, series, units, unit, per, kavrel, baseline, ratio, peaks, target, memory target, runs, note, CPU
  printf '%s\t%s\t\t1\t\t0\t%s\t%s\t%s\t0\t0\t1.3\t\t%s\t%s\t0\n' "kavrel-shadow metrics vs status" "$SIZE" \
    "$MK" "$MS" "$RATIO" "$RUNS" "the baseline is kavrel-shadow status on the same pool" >> "$BENCH_RESULTS"
fi

# The --per-database output: bytes per database, carried over to 10,000.
BYTES=$("$SHADOW" metrics --per-database | wc -c)
BASE=$("$SHADOW" metrics | wc -c)
PER_DB=$(awk -v a="$BYTES" -v b="$BASE" -v n="$N" 'BEGIN { printf "%.1f", (a - b) / n }')
AT_10K=$(awk -v b="$BASE" -v p="$PER_DB" 'BEGIN { printf "%.0f", b + p * 10000 }')
printf '== metrics --per-database %s: %s bytes (%s without), %s bytes a database; 10,000 catalogs: %s bytes (%.2f MiB, by formula; limit 5 MiB)\n' \
  "$SIZE" "$BYTES" "$BASE" "$PER_DB" "$AT_10K" "$(awk -v x="$AT_10K" 'BEGIN { print x / 1048576 }')" >&2
if [ -n "${METRICS_SIZE_POOL:-}" ]; then
  pool "$METRICS_SIZE_POOL" 1
  BYTES=$("$SHADOW" metrics --per-database | wc -c)
  printf '== metrics --per-database %s catalogs: %s bytes (%.2f MiB, measured)\n' "$METRICS_SIZE_POOL" "$BYTES" \
    "$(awk -v x="$BYTES" 'BEGIN { print x / 1048576 }')" >&2
fi
