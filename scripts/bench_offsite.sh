#!/usr/bin/env bash
# The off-site copy of the catalog shadow beside restic used by hand, on a pool
# of OFFSITE_POOL catalogs (gen_catalog, then kavrel-shadow init and backup
# --all), local repositories only (no network in the numbers):
#   (a) first push:  kavrel-shadow offsite push into a fresh repository vs
#                    restic backup of a cp -a copy of the shadow tree into
#                    another (the copy is made before the clock starts; its
#                    own time is reported beside);
#   (b) next push:   kavrel-shadow offsite push after OFFSITE_CHANGED catalogs
#                    changed (and backup --all took their versions) vs the
#                    first push; restic's own next backup of a new copy (with
#                    --ignore-inode --ignore-ctime) beside it;
#   (c) restore:     kavrel-shadow offsite restore latest onto an empty server
#                    (database root and shadow root removed) vs restic restore
#                    of the copy's latest snapshot, moved into place, plus
#                    kavrel-shadow recover --missing.
# Each time is the median of OFFSITE_RUNS runs (default 3), taken with
# date +%s.%N around the command. Until kavrel-shadow has the offsite command,
# only the restic sides are measured and the script says so.
#
#   BUILD_DIR        build with -DKAVREL_BUILD_BENCH=ON (default build-bench)
#   BENCH_DATA       where the pool and the repositories go (default
#                    $BUILD_DIR/bench-data; the pool is kept between runs
#                    while its size stays the same and (b) did not change it)
#   BENCH_QUICK=1    50 catalogs x 200 rows, 10 changed
#   OFFSITE_POOL     CATALOGS:ROWS (default 1000:1000)
#   OFFSITE_CHANGED  catalogs changed before each next push (default 100)
#   OFFSITE_RUNS     runs per measurement (default 3)
#   BENCH_RESULTS    a bench_runner results file to append the rows to (so
#                    that scripts/bench.sh puts them in its table)
set -euo pipefail

cd "$(dirname "$0")/.."
BUILD_DIR=${BUILD_DIR:-build-bench}
QUICK=${BENCH_QUICK:-0}
[ "$QUICK" = "0" ] && QUICK=""
if [ -n "$QUICK" ]; then
  POOL=${OFFSITE_POOL:-50:200} CHANGED=${OFFSITE_CHANGED:-10}
else
  POOL=${OFFSITE_POOL:-1000:1000} CHANGED=${OFFSITE_CHANGED:-100}
fi
RUNS=${OFFSITE_RUNS:-3}
N=${POOL%%:*} M=${POOL##*:}
[ "$CHANGED" -le "$N" ] || { echo "bench_offsite: OFFSITE_CHANGED=$CHANGED is more than the $N catalogs" >&2; exit 2; }

command -v restic > /dev/null || { echo "bench_offsite: restic is needed (package restic; make deps)" >&2; exit 1; }
GEN="$BUILD_DIR/bench/gen_catalog"
SHADOW="$BUILD_DIR/tool/kavrel-shadow"
missing=""
[ -x "$GEN" ] || missing="$missing gen_catalog"
[ -x "$SHADOW" ] || missing="$missing kavrel-shadow"
if [ -n "$missing" ]; then
  echo "bench_offsite: building$missing in $BUILD_DIR" >&2
  # shellcheck disable=SC2086
  cmake --build "$BUILD_DIR" -j"${JOBS:-2}" --target $missing
fi
GEN=$(cd "$(dirname "$GEN")" && pwd)/gen_catalog
SHADOW=$(cd "$(dirname "$SHADOW")" && pwd)/kavrel-shadow
mkdir -p "${BENCH_DATA:-$BUILD_DIR/bench-data}"
DATA=$(cd "${BENCH_DATA:-$BUILD_DIR/bench-data}" && pwd)

# The offsite commands come with a later kavrel-shadow; without them the
# kavrel sides are left out, not faked.
OFFSITE=""
if "$SHADOW" --help 2>&1 | grep -q '^[[:space:]]*offsite'; then
  OFFSITE=1
else
  echo "bench_offsite: $SHADOW has no offsite command: measuring the restic sides only," \
       "no ratios against kavrel" >&2
fi

P="$DATA/offsite-${N}x${M}"
W="$DATA/offsite-work"
LOG="$W/commands.log"
export VELKREGISTRY="$P/registry.cfg"
export DCT_LOG="file:$W/kavrel.log"
unset RESTIC_REPOSITORY RESTIC_PASSWORD RESTIC_PASSWORD_COMMAND RESTIC_CACHE_DIR
rm -rf "$W"
mkdir -p "$W"
echo "kavrel off-site benchmark" > "$W/offsite.pass"
chmod 600 "$W/offsite.pass"
restic_cmd() { restic --no-cache --password-file "$W/offsite.pass" "$@"; }

fmt() { echo "$1" | sed -e ':a' -e 's/\([0-9]\)\([0-9]\{3\}\)\($\|,\)/\1,\2\3/' -e 'ta'; }

# ---- the pool and its shadow ----

if [ "$(cat "$P/.offsite-ready" 2> /dev/null)" != "$N $M" ]; then
  echo "bench_offsite: generating a pool of $N catalogs x $M rows and its shadow" >&2
  rm -rf "$P"
  "$GEN" "$P" "$N" "$M"
  cp "$P/pool.cfg" "$P/pool.cfg.base"
  "$SHADOW" init > /dev/null
  "$SHADOW" backup --all > /dev/null
  echo "$N $M" > "$P/.offsite-ready"
fi
SHADOW_ROOT="$P/storage/catalogshadow"
DB_ROOT="$P/databases"
SIZE="$(fmt "$N") catalogs x $(fmt "$M") rows, shadow $(du -sm "$SHADOW_ROOT" | cut -f1) MiB"

# The configuration file with an [Offsite] section naming repository $1.
use_repository() {
  {
    cat "$P/pool.cfg.base"
    printf '[Offsite]\nRepository = %s\nPasswordFile = %s\nKeepLast = 48\n' "$1" "$W/offsite.pass"
  } > "$P/pool.cfg"
}

# ---- timing ----

now() { date +%s.%N; }
# timed VAR CMD...: runs CMD, its output to the log; VAR gets the seconds
# (and peak memory in KiB into VAR_kib when /usr/bin/time is there).
timed() {
  local var=$1 t0 t1 kib=0
  shift
  echo "\$ $*" >> "$LOG"
  t0=$(now)
  if [ -x /usr/bin/time ]; then
    /usr/bin/time -f %M -o "$W/peak" "$@" >> "$LOG" 2>&1 || { echo "bench_offsite: failed: $*" >&2; tail -n 20 "$LOG" >&2; exit 1; }
  else
    "$@" >> "$LOG" 2>&1 || { echo "bench_offsite: failed: $*" >&2; tail -n 20 "$LOG" >&2; exit 1; }
  fi
  t1=$(now)
  [ -x /usr/bin/time ] && kib=$(tail -n 1 "$W/peak")
  printf -v "$var" '%s' "$(awk -v a="$t0" -v b="$t1" 'BEGIN { printf "%.6f", b - a }')"
  printf -v "${var}_kib" '%s' "$kib"
}
median() { printf '%s\n' "$@" | sort -g | awk '{ v[NR] = $1 } END { if (NR % 2) print v[(NR + 1) / 2]; else print (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
maximum() { printf '%s\n' "$@" | sort -g | tail -n 1; }

# report OP SIZE NOTE KAVREL_SECONDS BASELINE_SECONDS KAVREL_KIB BASELINE_KIB
# [NAME_K NAME_B]: one line like bench_runner's (the two sides named NAME_K
# and NAME_B, default kavrel and baseline), and a row of its results file
# when asked for. An empty KAVREL_SECONDS: that side was not measured.
report() {
  local op=$1 size=$2 note=$3 mk=$4 mb=$5 pk=$6 pb=$7 nk=${8:-kavrel} nb=${9:-baseline}
  if [ -z "$mk" ]; then
    printf '== %s %s: %s not measured (no offsite command), %s %.6f s, peak %s KiB (%s)\n' \
      "$op" "$size" "$nk" "$nb" "$mb" "$pb" "$note" >&2
    return
  fi
  local ratio
  ratio=$(awk -v k="$mk" -v b="$mb" 'BEGIN { printf "%.3f", (b > 0) ? k / b : 0 }')
  printf '== %s %s: %s %.6f s, %s %.6f s, ratio %s, peak %s / %s KiB (%s)\n' \
    "$op" "$size" "$nk" "$mk" "$nb" "$mb" "$ratio" "$pk" "$pb" "$note" >&2
  if [ -n "${BENCH_RESULTS:-}" ]; then
    printf '%s\t%s\t\t1\t\t0\t%s\t%s\t%s\t%s\t%s\t\t\t%s\t%s\t0\n' \
      "$op" "$size" "$mk" "$mb" "$ratio" "$pk" "$pb" "$RUNS" "$note" >> "$BENCH_RESULTS"
  fi
}

# Copies the shadow tree as it stands to $W/copy (the plain way to get a
# still picture of it); COPY_SECONDS gets the time.
fresh_copy() {
  rm -rf "$W/copy"
  timed COPY_SECONDS cp -a "$SHADOW_ROOT" "$W/copy"
}

# ---- (a) first push into a fresh repository ----

K_FIRST=() B_FIRST=() C_FIRST=() K_FIRST_KIB=() B_FIRST_KIB=()
for run in $(seq "$RUNS"); do
  if [ -n "$OFFSITE" ]; then
    rm -rf "$W/repo-kavrel"
    restic_cmd -r "$W/repo-kavrel" init -q >> "$LOG" 2>&1
    use_repository "$W/repo-kavrel"
    # The pool takes each run's new repository as its own.
    "$SHADOW" offsite init >> "$LOG" 2>&1
    timed T "$SHADOW" offsite push
    K_FIRST+=("$T") K_FIRST_KIB+=("$T_kib")
  fi
  rm -rf "$W/repo-restic"
  restic_cmd -r "$W/repo-restic" init -q >> "$LOG" 2>&1
  fresh_copy
  C_FIRST+=("$COPY_SECONDS")
  # Relative to $W, so that a restore puts the tree at TARGET/copy.
  # shellcheck disable=SC2016
  timed T sh -c 'cd "$1" && exec restic --no-cache --password-file offsite.pass -r repo-restic backup -q copy' sh "$W"
  B_FIRST+=("$T") B_FIRST_KIB+=("$T_kib")
  echo "bench_offsite: first push, run $run of $RUNS" >&2
done
MK_FIRST=""
[ -n "$OFFSITE" ] && MK_FIRST=$(median "${K_FIRST[@]}")
MB_FIRST=$(median "${B_FIRST[@]}")
report "off-site first push (kavrel-shadow offsite push)" "$SIZE" \
  "restic backup of a cp -a copy of the shadow tree, fresh repository; the cp -a took $(median "${C_FIRST[@]}") s" \
  "$MK_FIRST" "$MB_FIRST" "$([ -n "$OFFSITE" ] && maximum "${K_FIRST_KIB[@]}")" "$(maximum "${B_FIRST_KIB[@]}")"

# ---- (b) the next push, after some catalogs changed ----

# Round r rewrites catalogs client0000.. with rows they did not hold, then
# takes their versions as the nightly run would.
change_catalogs() {
  local scratch="$W/changed"
  rm -rf "$scratch"
  "$GEN" "$scratch" "$CHANGED" "$M" "$(( M * (1 + $1) ))" > /dev/null
  local d
  for d in "$scratch"/databases/application/1/client*; do
    cp "$d/daily/app.db" "$DB_ROOT/application/1/$(basename "$d")/daily/app.db"
  done
  rm -rf "$scratch"
  "$SHADOW" backup --all > /dev/null
}
rm -f "$P/.offsite-ready"  # the pool changes from here on
K_NEXT=() B_NEXT=() K_NEXT_KIB=() B_NEXT_KIB=()
for run in $(seq "$RUNS"); do
  change_catalogs "$run"
  if [ -n "$OFFSITE" ]; then
    use_repository "$W/repo-kavrel"
    timed T "$SHADOW" offsite push
    K_NEXT+=("$T") K_NEXT_KIB+=("$T_kib")
  fi
  fresh_copy
  # shellcheck disable=SC2016
  timed T sh -c 'cd "$1" && exec restic --no-cache --password-file offsite.pass -r repo-restic backup -q --ignore-inode --ignore-ctime copy' sh "$W"
  B_NEXT+=("$T") B_NEXT_KIB+=("$T_kib")
  echo "bench_offsite: next push, run $run of $RUNS" >&2
done
CHANGED_SIZE="$SIZE, $(fmt "$CHANGED") catalogs changed"
if [ -n "$OFFSITE" ]; then
  report "off-site next push vs first push" "$CHANGED_SIZE" "kavrel-shadow offsite push into a fresh repository" \
    "$(median "${K_NEXT[@]}")" "$MK_FIRST" "$(maximum "${K_NEXT_KIB[@]}")" "$(maximum "${K_FIRST_KIB[@]}")" \
    "next push" "first push"
fi
# restic's own numbers, for the reader: not a kavrel row of the table.
BENCH_RESULTS="" report "restic alone: next backup vs first backup" "$CHANGED_SIZE" \
  "new cp -a copy, --ignore-inode --ignore-ctime; the first backup into a fresh repository" \
  "$(median "${B_NEXT[@]}")" "$MB_FIRST" "$(maximum "${B_NEXT_KIB[@]}")" "$(maximum "${B_FIRST_KIB[@]}")" \
  "next backup" "first backup"

# ---- (c) restore onto an empty server ----

empty_server() { rm -rf "$DB_ROOT" "$SHADOW_ROOT" "$W/restored"; }
restored_catalogs() { find "$DB_ROOT/application" -name app.db 2> /dev/null | wc -l; }
# One command, so that it can be timed as a whole: $1 the work directory,
# $2 the shadow root, $3 kavrel-shadow.
# shellcheck disable=SC2016
PLAIN_RESTORE='restic --no-cache --password-file "$1/offsite.pass" -r "$1/repo-restic" restore latest --target "$1/restored" -q &&
  mkdir -p "$(dirname "$2")" && mv "$1/restored/copy" "$2" && "$3" recover --missing > /dev/null'
K_REST=() B_REST=() K_REST_KIB=() B_REST_KIB=()
for run in $(seq "$RUNS"); do
  if [ -n "$OFFSITE" ]; then
    empty_server
    use_repository "$W/repo-kavrel"
    timed T "$SHADOW" offsite restore latest
    K_REST+=("$T") K_REST_KIB+=("$T_kib")
    [ "$(restored_catalogs)" -eq "$N" ] ||
      { echo "bench_offsite: offsite restore left $(restored_catalogs) of $N catalogs" >&2; exit 1; }
  fi
  empty_server
  timed T sh -c "$PLAIN_RESTORE" sh "$W" "$SHADOW_ROOT" "$SHADOW"
  B_REST+=("$T") B_REST_KIB+=("$T_kib")
  [ "$(restored_catalogs)" -eq "$N" ] ||
    { echo "bench_offsite: restic restore + recover --missing left $(restored_catalogs) of $N catalogs" >&2; exit 1; }
  echo "bench_offsite: restore, run $run of $RUNS" >&2
done
use_repository "$W/repo-kavrel"
MK_REST=""
[ -n "$OFFSITE" ] && MK_REST=$(median "${K_REST[@]}")
report "off-site restore onto an empty server (kavrel-shadow offsite restore latest)" "$SIZE" \
  "restic restore of the copy's latest snapshot, moved into place, + kavrel-shadow recover --missing" \
  "$MK_REST" "$(median "${B_REST[@]}")" "$([ -n "$OFFSITE" ] && maximum "${K_REST_KIB[@]}")" \
  "$(maximum "${B_REST_KIB[@]}")"
