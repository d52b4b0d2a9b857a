#!/usr/bin/env bash
# The comparisons of bench/: every operation of kavrel beside a baseline doing
# the same work with nothing in between (plain C against SQLite and zlib, the
# sqlite3 shell, cp), in one run, and one table of the results.
#
#   BUILD_DIR        Release build with -DKAVREL_BUILD_BENCH=ON (default build-bench)
#   BENCH_QUICK=1    small sizes: a smoke check of about a minute
#   BENCH_DATA       where the generated trees go (default $BUILD_DIR/bench-data;
#                    kept between runs and regenerated only when sizes change)
#   BENCH_SHM        a tmpfs directory for the insert rows that leave the disk
#                    out (default /dev/shm/kavrel-bench-$UID; skipped if unusable)
#   BENCH_BACKUP_MB  size of the database the backup copies (default 500, quick 20)
#   BENCH_RUNS       measured rounds per comparison (default 7, quick 5; inserts
#                    on a disk take at least 11, their syncs are the noisiest part)
#   BENCH_HUGE=1     also list one database of 10,000,000 rows (4 GB of data)
#   BENCH_MICRO=1    afterwards, also the Google Benchmark programs bench/*_bench
#                    (finer-grained views of single operations)
#   BENCH_FIND_ONLY=1  only the kavrel-find comparisons (and the table)
#   BENCH_THREADS_ONLY=1  only the inserts from several threads (and the table)
#   BENCH_SYSCALLS=1 afterwards, also the system calls per operation beside the
#                    baselines (scripts/bench_syscalls.sh; needs strace)
#   BENCH_OFFSITE=0  leave out the off-site copy (scripts/bench_offsite.sh, which
#                    has its own settings; it needs restic)
#   BENCH_METRICS=0  leave out kavrel-shadow metrics beside status
#                    (scripts/bench_metrics.sh, with its own settings)
#
# Each comparison runs one warm-up of each side and then the rounds, the two
# sides alternating (bench/bench_runner.cpp). The table goes to standard output
# and to $BUILD_DIR/bench-results.md; the raw results to bench-results.tsv.
set -euo pipefail

cd "$(dirname "$0")/.."
BUILD_DIR=${BUILD_DIR:-build-bench}
QUICK=${BENCH_QUICK:-0}
[ "$QUICK" = "0" ] && QUICK=""
RUNS=${BENCH_RUNS:-$([ -n "$QUICK" ] && echo 5 || echo 7)}

FIND_ONLY=${BENCH_FIND_ONLY:-0}
[ "$FIND_ONLY" = "0" ] && FIND_ONLY=""
THREADS_ONLY=${BENCH_THREADS_ONLY:-0}
[ "$THREADS_ONLY" = "0" ] && THREADS_ONLY=""

B="$BUILD_DIR/bench"
KAVREL="$BUILD_DIR/tool/kavrel"
KAVREL_FIND="$BUILD_DIR/tool/kavrel-find"
PROGRAMS="gen_catalog gen_shadow bench_runner baseline_list baseline_insert baseline_query baseline_openclose
          kavrel_insert kavrel_insert_procs kavrel_insert_threads kavrel_query kavrel_cache kavrel_backup kavrel_recover"
[ -n "$FIND_ONLY" ] && PROGRAMS="gen_catalog bench_runner baseline_list"
[ -n "$THREADS_ONLY" ] && PROGRAMS="gen_catalog bench_runner kavrel_insert_threads"
missing=""
for p in $PROGRAMS; do [ -x "$B/$p" ] || missing="$missing $p"; done
if [ -z "$THREADS_ONLY" ]; then
  [ -x "$KAVREL" ] || missing="$missing kavrel"
  [ -x "$KAVREL_FIND" ] || missing="$missing kavrel-find"
fi
if [ -n "$missing" ]; then
  echo "bench: building$missing in $BUILD_DIR" >&2
  # shellcheck disable=SC2086
  cmake --build "$BUILD_DIR" -j"${JOBS:-2}" --target $missing
fi
command -v sqlite3 > /dev/null || { echo "bench: the sqlite3 shell is needed (package sqlite3)" >&2; exit 1; }

mkdir -p "${BENCH_DATA:-$BUILD_DIR/bench-data}"
DATA=$(cd "${BENCH_DATA:-$BUILD_DIR/bench-data}" && pwd)
B=$(cd "$B" && pwd)
KAVREL=$(cd "$(dirname "$KAVREL")" && pwd)/kavrel
KAVREL_FIND=$(dirname "$KAVREL")/kavrel-find
RESULTS="$BUILD_DIR/bench-results.tsv"
TABLE="$BUILD_DIR/bench-results.md"
: > "$RESULTS"

SHM=${BENCH_SHM:-/dev/shm/kavrel-bench-$(id -u)}
if ! mkdir -p "$SHM" 2> /dev/null || [ ! -w "$SHM" ]; then SHM=""; fi

if [ -n "$QUICK" ]; then
  BACKUP_MB=${BENCH_BACKUP_MB:-20}
  LIST_MAIN="10:1000 100:100"          # databases:rows per database
  LIST_LOG=100:100                     # the listing repeated with log records to a file
  LIST_ONE=20000                       # one large database (also the query database)
  LIST_ROWS_SERIES="1000 5000 20000 100000"
  LIST_DBS_SERIES="1 5 20 100"
  Q_ID=200 Q_GLOB=20 Q_NAME=500 Q_RANGE=3
  CACHE_OPS=5000
  INS_DISK=20 INS_SHM=200
  INS_PROCS=40
  INS_THREADS=80
  RECOVER_BASE=5000 RECOVER_MAIN=5000
  RECOVER_SERIES="100 500 2000 10000"
  FIND_POOL=100:100 FIND_CLIENTS="client00*" FIND_SINCE=1700000090
else
  BACKUP_MB=${BENCH_BACKUP_MB:-500}
  LIST_MAIN="100:10000 1000:100"
  LIST_LOG=1000:100
  LIST_ONE=1000000
  LIST_ROWS_SERIES="10000 50000 200000 1000000"
  LIST_DBS_SERIES="10 50 200 1000"
  Q_ID=2000 Q_GLOB=200 Q_NAME=5000 Q_RANGE=3
  CACHE_OPS=20000
  INS_DISK=200 INS_SHM=2000
  INS_PROCS=400
  INS_THREADS=400
  RECOVER_BASE=100000 RECOVER_MAIN=100000
  RECOVER_SERIES="1000 5000 20000 100000"
  # 1,000 catalogs of 1,000 rows; the client pattern picks 10 of them (1 %),
  # the start time the last 100 rows of each (start times run 1700000000 + row).
  FIND_POOL=1000:1000 FIND_CLIENTS="client000*" FIND_SINCE=1700000900
fi
INS_RUNS=$RUNS
[ -z "$QUICK" ] && [ "$RUNS" -lt 11 ] && INS_RUNS=11

# Database file bytes per generated row, measured: about 400.
BYTES_PER_ROW=397

# ---- generated trees (kept while their sizes stay the same) ----

# tree NAME NDBS ROWS: DATA/NAME holds NDBS databases of ROWS rows.
tree() {
  local dir="$DATA/$1"
  if [ "$(cat "$dir/.generated" 2> /dev/null)" != "$2 $3 0" ]; then
    echo "bench: generating $1 ($2 x $3 rows)" >&2
    rm -rf "$dir"
    "$B/gen_catalog" "$dir" "$2" "$3"
  fi
  echo "$dir"
}

# shadow_tree NAME BASE_ROWS STATEMENTS: a database with a version of
# BASE_ROWS rows and a journal of STATEMENTS inserts, client NAME in DATA/recover.
shadow_tree() {
  local root="$DATA/recover" stamp="$DATA/recover/replay/$1.generated"
  [ -f "$root/.generated" ] || "$B/gen_catalog" "$root" 0 0
  if [ "$(cat "$stamp" 2> /dev/null)" != "$2 $3" ]; then
    echo "bench: generating a shadow of $2 rows with a journal of $3 statements" >&2
    "$B/gen_shadow" "$root" "$1" "$2" "$3"
    echo "$2 $3" > "$stamp"
  fi
}

fmt() { echo "$1" | sed -e ':a' -e 's/\([0-9]\)\([0-9]\{3\}\)\($\|,\)/\1,\2\3/' -e 'ta'; }
q() { printf "%q" "$1"; }

# compare ARGS...: one comparison through the runner.
compare() { "$B/bench_runner" run --out "$RESULTS" --runs "$RUNS" "$@"; }

listing_cmds() {  # sets K and BL for the tree $1
  K="VELKREGISTRY=$(q "$1/registry.cfg") exec $(q "$KAVREL") -listall"
  BL="exec $(q "$B/baseline_list") $(q "$1")"
}

START=$(date +%s)

# ---- inserts from several threads of one process ----

# The streams of one backup end together: threads of one service process
# insert into one database at once and their changes are committed in groups
# (one transaction, one journal append and sync for a group). The same rows
# shared out between 1, 4 and 8 threads of one process with one catalog, on
# one database: the time is for all of them, so a ratio of 0.25 is four times
# the rows per second. Then the same points with every change committed on its
# own (GROUP 1, the catalog as it was before its changes were grouped), which
# is also the check that one thread, and threads on databases of their own,
# pay nothing for the line.
threads_rows() {  # ROOT COUNT WHERE
  local root=$1 count=$2 where=$3
  [ -f "$root/.generated" ] || "$B/gen_catalog" "$root" 0 0
  local prep kt
  prep="rm -rf $(q "$root/databases") $(q "$root/storage")"
  kt="exec $(q "$B/kavrel_insert_threads")"
  for type in 2 1; do
    local kind="shadow-protected" t8="--target 0.25" t4="--target 0.4"
    [ "$type" = 1 ] && kind="plain"
    # shellcheck disable=SC2086
    compare --runs "$INS_RUNS" --op "$kind inserts, 8 threads on 1 database vs 1 thread" \
      --size "$(fmt "$count") rows, $where" --mode report --per --units "$count" --unit row --prep "$prep" \
      $t8 --note "one thread, one database, same rows" \
      --kavrel "$kt $type $(q "$root") $count 8 1" --baseline "$kt $type $(q "$root") $count 1 1"
    # shellcheck disable=SC2086
    compare --runs "$INS_RUNS" --op "$kind inserts, 4 threads on 1 database vs 1 thread" \
      --size "$(fmt "$count") rows, $where" --mode report --per --units "$count" --unit row --prep "$prep" \
      $t4 --note "one thread, one database, same rows" \
      --kavrel "$kt $type $(q "$root") $count 4 1" --baseline "$kt $type $(q "$root") $count 1 1"
    compare --runs "$INS_RUNS" --op "$kind inserts, 8 threads on 1 database, grouped vs one at a time" \
      --size "$(fmt "$count") rows, $where" --mode report --per --units "$count" --unit row --prep "$prep" \
      --note "every change committed on its own (GROUP 1)" \
      --kavrel "$kt $type $(q "$root") $count 8 1" --baseline "$kt $type $(q "$root") $count 8 1 1"
    compare --runs "$INS_RUNS" --op "$kind inserts, 1 thread, through the line vs one at a time" \
      --size "$(fmt "$count") rows, $where" --mode report --per --units "$count" --unit row --prep "$prep" \
      --target 1.05 --note "every change committed on its own (GROUP 1)" \
      --kavrel "$kt $type $(q "$root") $count 1 1" --baseline "$kt $type $(q "$root") $count 1 1 1"
    compare --runs "$INS_RUNS" --op "$kind inserts, 8 threads on 8 databases, through the line vs one at a time" \
      --size "$(fmt "$count") rows, $where" --mode report --per --units "$count" --unit row --prep "$prep" \
      --target 1.05 --note "every change committed on its own (GROUP 1)" \
      --kavrel "$kt $type $(q "$root") $count 8 8" --baseline "$kt $type $(q "$root") $count 8 8 1"
  done
}

if [ -n "$THREADS_ONLY" ]; then
  threads_rows "$DATA/insert-threads" "$INS_THREADS" "disk"
else

# ---- kavrel-find ----

# The same selection done by the plain C listing program in its --find mode:
# walk, skip client directories that do not match, SELECT with the filter,
# checksum with zlib, same lines; the summary against SQLite's own GROUP BY.
n=${FIND_POOL%%:*} rows=${FIND_POOL##*:}
FT=$(tree "find-${n}x${rows}" "$n" "$rows")
FIND_K="VELKREGISTRY=$(q "$FT/registry.cfg") exec $(q "$KAVREL_FIND")"
FIND_BL="exec $(q "$B/baseline_list") --find $(q "$FT")"
FIND_SIZE="$(fmt "$n") databases x $(fmt "$rows") rows"
FIND_NOTE="plain C: walk, skip other clients, SELECT, checksum with zlib, same lines"
compare --op "kavrel-find --client (1 % of the catalogs)" --size "$FIND_SIZE" --check-output --target 1.2 \
  --mem-target 2 --note "$FIND_NOTE" \
  --kavrel "$FIND_K --client $(q "$FIND_CLIENTS")" --baseline "$FIND_BL --client $(q "$FIND_CLIENTS")"
compare --op "kavrel-find --since (10 % of the rows of every catalog)" --size "$FIND_SIZE" --check-output \
  --target 1.2 --mem-target 2 --note "plain C: walk, SELECT ... WHERE backup_start_time >= ?, checksum, same lines" \
  --kavrel "$FIND_K --since $FIND_SINCE" --baseline "$FIND_BL --since $FIND_SINCE"
compare --op "kavrel-find --summary (whole pool)" --size "$FIND_SIZE" --check-output --target 1.2 \
  --mem-target 2 --note "plain C: one GROUP BY per database in SQLite, no row read or checksummed" \
  --kavrel "$FIND_K --summary" --baseline "$FIND_BL --summary"
compare --op "kavrel-find (every item)" --size "$FIND_SIZE" --check-output \
  --note "plain C: walk, SELECT, checksum with zlib, same lines" \
  --kavrel "$FIND_K" --baseline "$FIND_BL"

if [ -z "$FIND_ONLY" ]; then

# ---- listing ----

LIST_NOTE="plain C: walk, SELECT, checksum with zlib, same lines"
# The main rows are also points of the scaling series (rows in one database,
# databases of 100 rows), which then skip their sizes.
ROWS_SERIES="listing, rows in one database"
DBS_SERIES="listing, databases of 100 rows"
for entry in $LIST_MAIN; do
  n=${entry%%:*} rows=${entry##*:}
  series=()
  [ "$rows" = 100 ] && series=(--series "$DBS_SERIES" --units "$((n * 100))" --unit row)
  target=1.1
  [ "$rows" = 100 ] && target=1.2
  listing_cmds "$(tree "list-${n}x${rows}" "$n" "$rows")"
  compare --op "listing (kavrel -listall)" --size "$(fmt "$n") databases x $(fmt "$rows") rows" --check-output \
    --target "$target" --mem-target 2 --note "$LIST_NOTE" --kavrel "$K" --baseline "$BL" "${series[@]}"
done
# The same catalogs listed by one exact backup id (every catalog's first
# backup): the fixed cost of each catalog, with a smaller share of rows.
n=${LIST_LOG%%:*} rows=${LIST_LOG##*:}
T=$(tree "list-${n}x${rows}" "$n" "$rows")
compare --op "listing (kavrel -listbybackupid, exact id)" --size "$(fmt "$n") databases x $(fmt "$rows") rows" \
  --check-output --target 1.2 --note "$LIST_NOTE" \
  --kavrel "VELKREGISTRY=$(q "$T/registry.cfg") exec $(q "$KAVREL") -listbybackupid B100000" \
  --baseline "exec $(q "$B/baseline_list") $(q "$T") B100000"
ONE=$(tree "list-1x$LIST_ONE" 1 "$LIST_ONE")
listing_cmds "$ONE"
compare --op "listing (kavrel -listall)" --size "1 database x $(fmt "$LIST_ONE") rows" --check-output \
  --target 1.15 --note "$LIST_NOTE" --kavrel "$K" --baseline "$BL" \
  --series "$ROWS_SERIES" --units "$LIST_ONE" --unit row

# The same listing with the log records going to a file instead of syslog(3):
# what the records themselves cost on this machine.
n=${LIST_LOG%%:*} rows=${LIST_LOG##*:}
listing_cmds "$(tree "list-${n}x${rows}" "$n" "$rows")"
compare --op "listing, log records to a file (DCT_LOG)" --size "$(fmt "$n") databases x $(fmt "$rows") rows" \
  --check-output --note "$LIST_NOTE" --kavrel "DCT_LOG=file:/dev/null $K" --baseline "$BL"

# BENCH_HUGE=1 adds 10,000,000 rows in one database (4 GB, about a minute to
# generate and half a minute per listing).
[ "${BENCH_HUGE:-0}" = 1 ] && LIST_ROWS_SERIES="$LIST_ROWS_SERIES 10000000"
for rows in $LIST_ROWS_SERIES; do
  [ "$rows" = "$LIST_ONE" ] && continue
  listing_cmds "$(tree "list-1x$rows" 1 "$rows")"
  compare --op "listing" --size "1 database x $(fmt "$rows") rows" --series "$ROWS_SERIES" \
    --units "$rows" --unit row --kavrel "$K" --baseline "$BL"
done
for n in $LIST_DBS_SERIES; do
  case " $LIST_MAIN " in *" $n:100 "*) continue ;; esac
  listing_cmds "$(tree "list-${n}x100" "$n" 100)"
  compare --op "listing" --size "$(fmt "$n") databases x 100 rows" --series "$DBS_SERIES" \
    --units "$((n * 100))" --unit row --kavrel "$K" --baseline "$BL"
done

# ---- queries on the large database ----

QUERY_NOTE="plain C: the same SELECT prepared once, rows decoded"
query() {  # KIND COUNT LABEL TARGET
  compare --op "find_catalog: $3" --size "$(fmt "$LIST_ONE") rows" --mode report --per --units "$2" --unit query \
    --target "$4" --note "$QUERY_NOTE" \
    --kavrel "exec $(q "$B/kavrel_query") $(q "$ONE") $1 $LIST_ONE $2" \
    --baseline "exec $(q "$B/baseline_query") $(q "$ONE") $1 $LIST_ONE $2"
}
query id "$Q_ID" "exact backup id (100 rows)" 1.2
query glob "$Q_GLOB" "backup id GLOB (1,000 rows)" 1.5
query name "$Q_NAME" "file name (1 row)" 1.3
query range "$Q_RANGE" "time range (1,000 rows, no index)" 1.5
# What the one-row queries spend their time on: the same query against a
# baseline that prepares its statement for every query, as the catalog did
# before it kept its statements, and with the catalog's log records going to a
# file instead of syslog(3).
compare --op "find_catalog: file name (1 row)" --size "$(fmt "$LIST_ONE") rows" --mode report --per \
  --units "$Q_NAME" --unit query --note "plain C: the same SELECT prepared for every query" \
  --kavrel "exec $(q "$B/kavrel_query") $(q "$ONE") name $LIST_ONE $Q_NAME" \
  --baseline "exec $(q "$B/baseline_query") $(q "$ONE") name $LIST_ONE $Q_NAME prepare"
compare --op "find_catalog: file name (1 row), log records to a file (DCT_LOG)" --size "$(fmt "$LIST_ONE") rows" \
  --mode report --per --units "$Q_NAME" --unit query --note "plain C: the same SELECT prepared for every query" \
  --kavrel "DCT_LOG=file:/dev/null exec $(q "$B/kavrel_query") $(q "$ONE") name $LIST_ONE $Q_NAME" \
  --baseline "exec $(q "$B/baseline_query") $(q "$ONE") name $LIST_ONE $Q_NAME prepare"

# ---- open-database cache ----

CACHE_TREE=$(tree "list-5x100" 5 100)
compare --op "cache hit (get_db + return_db)" --size "5 databases" --mode report --per --units "$CACHE_OPS" \
  --unit op --note "plain C: sqlite3_open_v2 + sqlite3_close per operation" \
  --kavrel "exec $(q "$B/kavrel_cache") $(q "$CACHE_TREE") 5 $CACHE_OPS" \
  --baseline "exec $(q "$B/baseline_openclose") $(q "$CACHE_TREE") 5 $CACHE_OPS"

# ---- inserts ----

insert_rows() {  # ROOT COUNT WHERE RUNS TARGETS(yes/no)
  local root=$1 count=$2 where=$3 runs=$4 t1="" t2=""
  if [ "$5" = yes ]; then t1="--target 1.25" t2="--target 2"; fi
  [ -f "$root/.generated" ] || "$B/gen_catalog" "$root" 0 0
  local prep kav base
  prep="rm -rf $(q "$root/databases") $(q "$root/storage")"
  kav="exec $(q "$B/kavrel_insert")"
  base="exec $(q "$B/baseline_insert") $(q "$root") $count"
  local note="plain C: single-row INSERT loop, autocommit"
  # shellcheck disable=SC2086
  compare --runs "$runs" --op "update_catalog, plain (type 1)" --size "$(fmt "$count") rows, $where" \
    --mode report --per --units "$count" --unit row --prep "$prep" $t1 --note "$note" \
    --kavrel "$kav 1 $(q "$root") $count" --baseline "$base"
  compare --runs "$runs" --op "update_catalog, shadow-protected (type 2)" --size "$(fmt "$count") rows, $where" \
    --mode report --per --units "$count" --unit row --prep "$prep" --note "$note" \
    --kavrel "$kav 2 $(q "$root") $count" --baseline "$base"
  # shellcheck disable=SC2086
  compare --runs "$runs" --op "update_catalog, shadow-protected vs plain" --size "$(fmt "$count") rows, $where" \
    --mode report --per --units "$count" --unit row --prep "$prep" $t2 --note "kavrel's plain catalog (type 1)" \
    --kavrel "$kav 2 $(q "$root") $count" --baseline "$kav 1 $(q "$root") $count"
}
# On the disk every commit waits for its syncs: what a service sees. On tmpfs
# syncs cost nothing, which leaves the processor's share.
insert_rows "$DATA/insert" "$INS_DISK" "disk" "$INS_RUNS" yes
if [ -n "$SHM" ]; then
  insert_rows "$SHM/insert" "$INS_SHM" "tmpfs" "$RUNS" no
  rm -rf "$SHM"
fi

# ---- inserts from several processes ----

# The same rows shared out between 1, 2 and 4 processes, each with its own
# catalog and shadow context, on one database and on four: the time is for all
# of them, so a ratio below 1 is throughput gained. Each point next to the
# plain catalog doing the same; then the shadow-protected points against one
# process.
procs_rows() {  # ROOT COUNT WHERE
  local root=$1 count=$2 where=$3
  [ -f "$root/.generated" ] || "$B/gen_catalog" "$root" 0 0
  local prep kp
  prep="rm -rf $(q "$root/databases") $(q "$root/storage")"
  kp="exec $(q "$B/kavrel_insert_procs")"
  for point in 1:1 2:1 4:1 2:2 4:4; do
    local p=${point%%:*} d=${point##*:}
    compare --runs "$INS_RUNS" --op "update_catalog from $p processes on $d database(s), shadow vs plain" \
      --size "$(fmt "$count") rows, $where" --mode report --per --units "$count" --unit row --prep "$prep" \
      --note "kavrel's plain catalog (type 1), same processes" \
      --kavrel "$kp 2 $(q "$root") $count $p $d" --baseline "$kp 1 $(q "$root") $count $p $d"
  done
  for point in 2:1 4:1 2:2 4:4; do
    local p=${point%%:*} d=${point##*:} target="--target 1"
    [ "$point" = 4:4 ] && target="--target 0.56"
    # shellcheck disable=SC2086
    compare --runs "$INS_RUNS" --op "shadow-protected inserts, $p processes on $d database(s) vs 1 process" \
      --size "$(fmt "$count") rows, $where" --mode report --per --units "$count" --unit row --prep "$prep" \
      $target --note "one process, one database, same rows" \
      --kavrel "$kp 2 $(q "$root") $count $p $d" --baseline "$kp 2 $(q "$root") $count 1 1"
  done
}
procs_rows "$DATA/insert-procs" "$INS_PROCS" "disk"
threads_rows "$DATA/insert-threads" "$INS_THREADS" "disk"

# ---- backup ----

BACKUP_ROWS=$(( BACKUP_MB * 1048576 / BYTES_PER_ROW ))
BK=$(tree "backup-$BACKUP_ROWS" 1 "$BACKUP_ROWS")
BK_DIR="$BK/databases/application/1/client0000/daily"
BK_SIZE=$(( $(stat -c %s "$BK_DIR/app.db") / 1048576 ))
BK_PREP="rm -rf $(q "$BK/storage/catalogshadow/1") $(q "$BK/copy.db") && sync"
BK_CHECK="sqlite3 $(q "$BK/copy.db") 'PRAGMA integrity_check;'"
compare --op "shadow backup" --size "$(fmt "$BK_SIZE") MiB database" --prep "$BK_PREP" --target 1.3 \
  --note "cp + PRAGMA integrity_check (sqlite3 shell)" \
  --kavrel "exec $(q "$B/kavrel_backup") $(q "$BK") $(q "$BK_DIR")" \
  --baseline "cp $(q "$BK_DIR/app.db") $(q "$BK/copy.db") && $BK_CHECK"
compare --op "shadow backup" --size "$(fmt "$BK_SIZE") MiB database" --prep "$BK_PREP" \
  --note "cp + sync of the copy + PRAGMA integrity_check" \
  --kavrel "exec $(q "$B/kavrel_backup") $(q "$BK") $(q "$BK_DIR")" \
  --baseline "cp $(q "$BK_DIR/app.db") $(q "$BK/copy.db") && sync $(q "$BK/copy.db") && $BK_CHECK"

# ---- recovery ----

recover_cmp() {  # CLIENT BASE STATEMENTS [compare options...]
  local client=$1 base=$2 statements=$3
  shift 3
  shadow_tree "$client" "$base" "$statements"
  local root="$DATA/recover" dir="$DATA/recover/databases/application/1/$client/daily"
  compare --prep "rm -f $(q "$dir/app.db") $(q "$root/target.db") $(q "$root/target.db-journal")" \
    --note "cp of the version + sqlite3 shell: the journal in one transaction" \
    --kavrel "exec $(q "$B/kavrel_recover") $(q "$root") $(q "$dir")" \
    --baseline "cp $(q "$(cat "$root/replay/$client.base")") $(q "$root/target.db") && sqlite3 $(q "$root/target.db") < $(q "$root/replay/$client.sql")" \
    "$@"
}
recover_cmp "main" "$RECOVER_BASE" "$RECOVER_MAIN" --op "recovery" --target 1.3 \
  --size "$(fmt "$RECOVER_BASE")-row version + $(fmt "$RECOVER_MAIN")-statement journal"
for n in $RECOVER_SERIES; do
  recover_cmp "series$n" 0 "$n" --op "recovery" --size "empty version + $(fmt "$n") statements" \
    --series "recovery, statements in the journal" --units "$n" --unit statement
done

# ---- off-site copy ----

# Its own script: medians of 3 of whole runs (pushes and restores take
# minutes at full size), with rows for the table.
if [ "${BENCH_OFFSITE:-1}" != 0 ]; then
  BUILD_DIR="$BUILD_DIR" BENCH_DATA="$DATA" BENCH_QUICK="${QUICK:-0}" \
    BENCH_RESULTS="$(cd "$(dirname "$RESULTS")" && pwd)/$(basename "$RESULTS")" bash scripts/bench_offsite.sh
fi

# ---- metrics beside status ----

if [ "${BENCH_METRICS:-1}" != 0 ]; then
  BUILD_DIR="$BUILD_DIR" BENCH_DATA="$DATA" BENCH_QUICK="${QUICK:-0}" \
    BENCH_RESULTS="$(cd "$(dirname "$RESULTS")" && pwd)/$(basename "$RESULTS")" bash scripts/bench_metrics.sh
fi

fi  # FIND_ONLY
fi  # THREADS_ONLY

# ---- the table ----

{
  echo "Measured $(date -u '+%Y-%m-%d %H:%M UTC') in $(( $(date +%s) - START )) s$([ -n "$QUICK" ] && echo ", quick mode")."
  echo "Machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | sed 's/.*: //'), $(free -g | awk '/^Mem:/ {print $2}') GiB memory;" \
       "Linux $(uname -r); SQLite $(sqlite3 --version | awk '{print $1}'); load average at the end: $(cut -d' ' -f1-3 /proc/loadavg)."
  echo
  "$B/bench_runner" table "$RESULTS"
} > "$TABLE"
echo
cat "$TABLE"

# ---- system calls per operation, on request ----

if [ "${BENCH_SYSCALLS:-0}" = 1 ]; then
  echo
  BUILD_DIR="$BUILD_DIR" BENCH_DATA="$DATA/syscalls" bash scripts/bench_syscalls.sh | tee "$BUILD_DIR/bench-syscalls.txt"
fi

# ---- the Google Benchmark programs, on request ----

if [ "${BENCH_MICRO:-0}" = 1 ]; then
  for exe in "$B"/*_bench; do
    [ -x "$exe" ] || continue
    echo
    echo "== $(basename "$exe")"
    "$exe" --benchmark_color=false || echo "bench: $(basename "$exe") failed" >&2
  done 2>&1 | tee "$BUILD_DIR/bench-micro.txt"
fi
