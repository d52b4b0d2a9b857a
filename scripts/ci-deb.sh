#!/usr/bin/env bash
# Debian packages, end to end: builds kavrel and libkavrel-dev (make deb, which
# also runs lintian), installs both, and then works only with the installed files:
#   - the examples built against the CMake package (find_package(kavrel)),
#   - the examples built with `pkg-config --cflags --libs kavrel`,
#   - both shadow_service programs run (catalog with shadow backup and recovery),
#   - seed_pool fills a small pool, and the installed kavrel lists it, finding
#     the pool through the registry file VELKREGISTRY names.
# Packages that were not installed before are purged again at the end.
#
#   DEB_OUT  where make deb puts the packages (default build/deb)
set -euo pipefail

cd "$(dirname "$0")/.."
export DEB_OUT=${DEB_OUT:-build/deb}
if [ "$(id -u)" -eq 0 ]; then sudo=""; else sudo="sudo"; fi

fail() { echo "ci-deb: $*" >&2; exit 1; }
installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }

make deb

debs=()
for p in kavrel libkavrel-dev; do
  f=$(ls "$DEB_OUT/${p}"_*.deb 2>/dev/null | head -n 1)
  [ -n "$f" ] || fail "no ${p} package in $DEB_OUT"
  debs+=("$(cd "$(dirname "$f")" && pwd)/$(basename "$f")")
done

work=$(mktemp -d)
to_purge=()
for p in kavrel libkavrel-dev; do installed "$p" || to_purge+=("$p"); done
cleanup() {
  if [ "${#to_purge[@]}" -gt 0 ]; then
    $sudo env DEBIAN_FRONTEND=noninteractive apt-get purge -y -q "${to_purge[@]}" >/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

echo "ci-deb: installing ${debs[*]}"
$sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${debs[@]}"

multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
for f in /usr/bin/kavrel \
         /usr/share/man/man1/kavrel.1.gz \
         /usr/bin/kavrel-find \
         /usr/share/man/man1/kavrel-find.1.gz \
         /usr/bin/kavrel-shadow \
         /usr/share/man/man8/kavrel-shadow.8.gz \
         /usr/lib/systemd/system/kavrel-shadow.service \
         /usr/lib/systemd/system/kavrel-shadow.timer \
         /usr/lib/systemd/system/kavrel-shadow-offsite-check.service \
         /usr/lib/systemd/system/kavrel-shadow-offsite-check.timer \
         /usr/include/kavrel/appdb/catalog_application.h \
         /usr/include/kavrel/catalog_shadow/CatalogShadowCtx.h \
         /usr/include/kavrel/dct/log.h \
         /usr/include/kavrel/offsite/shadow_export.h \
         "/usr/lib/$multiarch/libkavrel_offsite.a" \
         "/usr/lib/$multiarch/libkavrel_appdb.a" \
         "/usr/lib/$multiarch/libkavrel_catalog_shadow.a" \
         "/usr/lib/$multiarch/libkavrel_sqlitedb.a" \
         "/usr/lib/$multiarch/libkavrel_dct.a" \
         "/usr/lib/$multiarch/cmake/kavrel/kavrelConfig.cmake" \
         "/usr/lib/$multiarch/pkgconfig/kavrel.pc"; do
  [ -e "$f" ] || fail "$f is not installed"
done
echo "ci-deb: installed files present; kavrel.pc: $(pkg-config --modversion kavrel)"
for line in "backup --all" "verify" "offsite push --if-configured"; do
  grep -qx "ExecStart=/usr/bin/kavrel-shadow $line" /usr/lib/systemd/system/kavrel-shadow.service ||
    fail "kavrel-shadow.service does not run kavrel-shadow $line"
done
grep -qx "ExecStart=/usr/bin/kavrel-shadow offsite check" /usr/lib/systemd/system/kavrel-shadow-offsite-check.service ||
  fail "kavrel-shadow-offsite-check.service does not run kavrel-shadow offsite check"
# Shipped, not enabled: the operator turns the timers on.
for t in kavrel-shadow.timer kavrel-shadow-offsite-check.timer; do
  [ ! -e "/etc/systemd/system/timers.target.wants/$t" ] || fail "$t was enabled by the package"
done

# Only the installed files from here on: a copy of the example sources, away
# from the tree and its include roots.
mkdir "$work/examples"
cp examples/CMakeLists.txt examples/*.cpp "$work/examples/"

echo "ci-deb: examples against the CMake package"
cmake -S "$work/examples" -B "$work/cmake-build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$work/cmake-build" -j"${JOBS:-2}"
"$work/cmake-build/shadow_service"

echo "ci-deb: examples with pkg-config"
for ex in shadow_service seed_pool; do
  # shellcheck disable=SC2046
  c++ -std=c++17 -Wall -Wextra -Werror -o "$work/$ex-pc" "$work/examples/$ex.cpp" \
      $(pkg-config --cflags --libs kavrel)
done
"$work/shadow_service-pc"

echo "ci-deb: installed kavrel on a small pool"
pool="$work/pool"
mkdir -p "$pool/db"
printf '[Tamberlode]\nconfigfilepath = %s/pool.cfg\n' "$pool" >"$pool/registry.cfg"
printf '[Paths]\nDatabase = %s/db\n' "$pool" >"$pool/pool.cfg"
export VELKREGISTRY="$pool/registry.cfg"
export DCT_LOG="file:$pool/kavrel.log"
"$work/seed_pool-pc" "$pool/db"

kavrel -listall >"$pool/listall.txt"
total=$(awk '/^total app catalog /{n += $4} END {print n + 0}' "$pool/listall.txt")
dirs=$(grep -c '^\[' "$pool/listall.txt" || true)
echo "ci-deb: kavrel -listall: $dirs catalog directories, $total items"
[ "$dirs" -eq 9 ] || fail "kavrel -listall listed $dirs catalog directories, expected 9"
[ "$total" -eq 32 ] || fail "kavrel -listall listed $total items, expected 32"

kavrel -listbybackupid clientB_1700000000 >"$pool/bybid.txt"
total=$(awk '/^total app catalog /{n += $4} END {print n + 0}' "$pool/bybid.txt")
[ "$total" -eq 4 ] || fail "kavrel -listbybackupid clientB_1700000000 listed $total items, expected 4"
if grep -q '^ERROR' "$pool/kavrel.log"; then
  cat "$pool/kavrel.log" >&2
  fail "kavrel logged errors"
fi

# kavrel-find reads the same pool: as many items, and those of one backup id.
found=$(kavrel-find --count)
[ "$found" -eq 32 ] || fail "kavrel-find --count found $found items, expected 32"
found=$(kavrel-find --backup-id clientB_1700000000 --count)
[ "$found" -eq 4 ] || fail "kavrel-find --backup-id clientB_1700000000 found $found items, expected 4"
rows=$(kavrel-find --summary --csv | wc -l)
# Nine catalogs, one of them empty: a header and eight rows.
[ "$rows" -eq 9 ] || fail "kavrel-find --summary --csv printed $rows lines, expected a header and 8 rows"
echo "ci-deb: kavrel-find: $found items of clientB_1700000000, $((rows - 1)) summary rows"

status=0
kavrel >/dev/null 2>&1 || status=$?
[ "$status" -eq 255 ] || fail "kavrel without an option exited with $status, expected 255"

man -w kavrel >/dev/null 2>&1 || [ ! -x /usr/bin/man ] || fail "man does not find kavrel(1)"
man -w kavrel-find >/dev/null 2>&1 || [ ! -x /usr/bin/man ] || fail "man does not find kavrel-find(1)"

echo "ci-deb: all checks passed"
