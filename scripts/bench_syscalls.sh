#!/usr/bin/env bash
# System calls per operation, kavrel beside its plain C baseline: counted with
# `strace -f -c` over two runs of each benchmark program that differ only in
# their number of operations, so that start-up and the untimed first operation
# cancel out. Unlike times, the counts are the same on every run, on a loaded
# machine too.
#
#   BUILD_DIR   a build with -DKAVREL_BUILD_BENCH=ON (default build-bench)
#   BENCH_DATA  where the small trees go (default $BUILD_DIR/bench-syscalls)
#   N           operations of the shorter run (default 100; the longer has 2N)
#   KAVREL_QUERY, KAVREL_INSERT, KAVREL   other builds of kavrel's side to count
#                                         (for instance the programs before a change)
#
# Prints one line per operation: its name, kavrel's calls per operation, the
# baseline's, and kavrel's calls by name (those making up at least 1 per
# operation). Listings count per catalog, over 20 and 40 catalogs of 100 rows.
# Last, the syncs (fsync and fdatasync) per row when 1, 4 and 8 threads of one
# process insert into one database at once, with the groups the catalog
# committed (the counts depend on how the groups fell, which strace's own
# slowness changes: they show the order of magnitude).
set -euo pipefail

cd "$(dirname "$0")/.."
BUILD_DIR=${BUILD_DIR:-build-bench}
B="$BUILD_DIR/bench"
N=${N:-100}
command -v strace > /dev/null || { echo "bench_syscalls: strace is needed (package strace)" >&2; exit 1; }
missing=""
for p in gen_catalog baseline_query baseline_insert baseline_list kavrel_query kavrel_insert kavrel_insert_threads; do
  [ -x "$B/$p" ] || missing="$missing $p"
done
[ -x "$BUILD_DIR/tool/kavrel" ] || missing="$missing kavrel"
if [ -n "$missing" ]; then
  echo "bench_syscalls: building$missing in $BUILD_DIR" >&2
  # shellcheck disable=SC2086
  cmake --build "$BUILD_DIR" -j"${JOBS:-2}" --target $missing > /dev/null
fi
KAVREL_QUERY=${KAVREL_QUERY:-$B/kavrel_query}
KAVREL_INSERT=${KAVREL_INSERT:-$B/kavrel_insert}
KAVREL=${KAVREL:-$BUILD_DIR/tool/kavrel}
DATA=${BENCH_DATA:-$BUILD_DIR/bench-syscalls}
mkdir -p "$DATA"
DATA=$(cd "$DATA" && pwd)
ST=$(mktemp)
trap 'rm -f "$ST" "$ST".*' EXIT

tree() {  # NAME NDBS ROWS
  [ "$(cat "$DATA/$1/.generated" 2> /dev/null)" = "$2 $3 0" ] || {
    rm -rf "${DATA:?}/$1"
    "$B/gen_catalog" "$DATA/$1" "$2" "$3" > /dev/null
  }
  echo "$DATA/$1"
}

# count OUT PREP CMD...: runs CMD under strace after PREP, the summary in OUT.
count() {
  local out=$1 prep=$2
  shift 2
  eval "$prep"
  strace -f -c -o "$out" "$@" > /dev/null 2>&1
}

# Calls per operation by name, from two summaries: "name=calls ..." and the total.
per_op() {  # SHORT LONG OPS
  awk -v ops="$3" '
    FNR == 1 { file++ }
    $1 ~ /^[0-9.]+$/ && NF >= 5 {
      name = $NF; calls = $4
      if (name == "total") { tot[file] = calls; next }
      c[file, name] = calls; names[name] = 1
    }
    END {
      line = ""
      for (n in names) {
        d = (c[2, n] - c[1, n]) / ops
        if (d >= 1) line = line sprintf(" %s=%g", n, d)
      }
      printf "%g|%s\n", (tot[2] - tot[1]) / ops, line
    }' "$1" "$2"
}

# row NAME OPS PREP KAVREL_CMD_SHORT KAVREL_CMD_LONG BASE_CMD_SHORT BASE_CMD_LONG
row() {
  local name=$1 ops=$2 prep=$3 k base
  count "$ST.k1" "$prep" $4
  count "$ST.k2" "$prep" $5
  count "$ST.b1" "$prep" $6
  count "$ST.b2" "$prep" $7
  k=$(per_op "$ST.k1" "$ST.k2" "$ops")
  base=$(per_op "$ST.b1" "$ST.b2" "$ops")
  printf "%-40s kavrel %5s  baseline %5s  kavrel:%s\n" "$name" "${k%%|*}" "${base%%|*}" "$(echo "${k#*|}" | tr ' ' '\n' | sort | tr '\n' ' ')"
}

ONE=$(tree query 1 20000)
for kind in name id; do
  label="one-row query (file name)"
  [ "$kind" = id ] && label="100-row query (exact backup id)"
  row "$label" "$N" ":" \
    "$KAVREL_QUERY $ONE $kind 20000 $N" "$KAVREL_QUERY $ONE $kind 20000 $((2 * N))" \
    "$B/baseline_query $ONE $kind 20000 $N" "$B/baseline_query $ONE $kind 20000 $((2 * N))"
done

INS=$(tree insert 0 0)
clean="rm -rf $INS/databases $INS/storage"
row "insert, plain (type 1)" "$N" "$clean" \
  "$KAVREL_INSERT 1 $INS $N" "$KAVREL_INSERT 1 $INS $((2 * N))" \
  "$B/baseline_insert $INS $N" "$B/baseline_insert $INS $((2 * N))"
row "insert, shadow-protected (type 2)" "$N" "$clean" \
  "$KAVREL_INSERT 2 $INS $N" "$KAVREL_INSERT 2 $INS $((2 * N))" \
  "$B/baseline_insert $INS $N" "$B/baseline_insert $INS $((2 * N))"

L1=$(tree list-20 20 100)
L2=$(tree list-40 40 100)
for how in "-listbybackupid B100000" "-listall"; do
  id=""
  [ "$how" != -listall ] && id=B100000
  row "listing per catalog (kavrel $how)" 20 ":" \
    "env VELKREGISTRY=$L1/registry.cfg $KAVREL $how" "env VELKREGISTRY=$L2/registry.cfg $KAVREL $how" \
    "$B/baseline_list $L1 $id" "$B/baseline_list $L2 $id"
done

# sync_row NAME TYPE THREADS: syncs per row of kavrel_insert_threads, N and 2N
# rows shared out between THREADS threads on one database.
sync_row() {
  local name=$1 type=$2 threads=$3 s
  eval "$clean"
  strace -f -c -e trace=fsync,fdatasync -o "$ST.s1" "$B/kavrel_insert_threads" "$type" "$INS" "$N" "$threads" 1 \
    > /dev/null 2>&1
  eval "$clean"
  strace -f -c -e trace=fsync,fdatasync -o "$ST.s2" "$B/kavrel_insert_threads" "$type" "$INS" "$((2 * N))" \
    "$threads" 1 > "$ST.g2" 2>&1
  s=$(per_op "$ST.s1" "$ST.s2" "$N")
  printf "%-40s syncs per row %5s  %s\n" "$name" "${s%%|*}" "$(grep '^groups:' "$ST.g2")"
}
for type in 2 1; do
  kind="shadow-protected"
  [ "$type" = 1 ] && kind="plain"
  for threads in 1 4 8; do
    sync_row "insert, $kind, $threads thread(s)" "$type" "$threads"
  done
done
