#!/usr/bin/env bash
# Builds kavrel, kavrel-shadow and the seeding example, creates a sample pool
# and lists it.
#
#   BUILD_DIR  build tree (default: build)
#   DEMO_DIR   where the sample pool goes (default: $BUILD_DIR/demo); emptied first
#
# The pool:
#   $DEMO_DIR/registry.cfg   [Tamberlode] configfilepath = $DEMO_DIR/pool.cfg
#   $DEMO_DIR/pool.cfg       [Paths] Database = StorageDatabase = $DEMO_DIR/db,
#                            [Storage] Storage Path = $DEMO_DIR/storage
#   $DEMO_DIR/db             catalogs made by examples/seed_pool through the library,
#                            one empty catalog, and a directory that is no catalog
#   $DEMO_DIR/storage/catalogshadow
#                            their shadow copies and journals (seed_pool protects
#                            every catalog it makes)
# Log records of every step go to $DEMO_DIR/kavrel.log.
set -euo pipefail

cd "$(dirname "$0")/.."
BUILD_DIR=${BUILD_DIR:-build}
DEMO_DIR=${DEMO_DIR:-$BUILD_DIR/demo}

if [ ! -f "$BUILD_DIR/CMakeCache.txt" ]; then
  cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo
fi
# Only what the demo and the README's recovery drill run; make test builds the rest.
cmake --build "$BUILD_DIR" -j"${JOBS:-2}" --target kavrel kavrel-shadow seed_pool

rm -rf "$DEMO_DIR"
mkdir -p "$DEMO_DIR"
DEMO_DIR=$(cd "$DEMO_DIR" && pwd)
KAVREL="$BUILD_DIR/tool/kavrel"
SEED="$BUILD_DIR/examples/seed_pool"

cat > "$DEMO_DIR/registry.cfg" <<CFG
; registry file of the sample pool (normally /etc/velkregistry.cfg)
[Tamberlode]
configfilepath = $DEMO_DIR/pool.cfg
CFG
cat > "$DEMO_DIR/pool.cfg" <<CFG
; CR configuration of the sample pool
[Paths]
Database = $DEMO_DIR/db
StorageDatabase = $DEMO_DIR/db
[Storage]
Storage Path = $DEMO_DIR/storage
CFG
mkdir -p "$DEMO_DIR/db"

export VELKREGISTRY="$DEMO_DIR/registry.cfg"
export DCT_LOG="file:$DEMO_DIR/kavrel.log"

"$SEED" "$DEMO_DIR/db" "$DEMO_DIR/pool.cfg"
# Neither of these is a catalog directory: the walk passes them by.
mkdir -p "$DEMO_DIR/db/databases/staging/incoming"
echo "scratch" > "$DEMO_DIR/db/databases/application/README"

run() {
  echo
  echo "\$ kavrel $(printf '%q ' "$@")"
  "$KAVREL" "$@"
}

run -listall
run -listbybackupid 'clientB_1700[01]*'

echo
echo "\$ ls -A $DEMO_DIR/storage/catalogshadow/1/clientA/daily"
ls -A "$DEMO_DIR/storage/catalogshadow/1/clientA/daily"

echo "Sample pool: $DEMO_DIR (registry $VELKREGISTRY); log records: $DEMO_DIR/kavrel.log"
