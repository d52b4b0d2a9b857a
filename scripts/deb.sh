#!/usr/bin/env bash
# Builds the Debian packages kavrel and libkavrel-dev and checks them with lintian.
#
#   DEB_OUT  where the .deb files (and the .changes, .buildinfo, build log and
#            lintian report) go; default build/deb. Emptied first.
#   JOBS     parallel compile jobs (default 2)
#
# dpkg-buildpackage writes its results next to the source tree and leaves its
# work files inside it, so the package is built from a copy of the tree below
# $DEB_OUT/src; the work tree stays clean. Missing tools and build dependencies
# (debian/control) are installed with apt-get, through sudo when not root.
set -euo pipefail

cd "$(dirname "$0")/.."
DEB_OUT=${DEB_OUT:-build/deb}
JOBS=${JOBS:-2}

if [ "$(id -u)" -eq 0 ]; then sudo=""; else sudo="sudo"; fi
apt_updated=""
apt_install() {
  if [ -z "$apt_updated" ]; then
    $sudo apt-get update
    apt_updated=1
  fi
  $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "$@"
}

# Packaging tools.
missing=""
for p in debhelper dpkg-dev fakeroot lintian; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
if [ -n "$missing" ]; then
  echo "deb: installing$missing"
  # shellcheck disable=SC2086
  apt_install $missing
fi

# The package version must be the one the build reports.
cmake_version=$(sed -n 's/^project(kavrel VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
deb_version=$(dpkg-parsechangelog -S Version)
if [ "${deb_version%%-*}" != "$cmake_version" ]; then
  echo "deb: debian/changelog has version $deb_version, CMakeLists.txt $cmake_version" >&2
  exit 1
fi

# Copy of the tree to build from: everything but version control and build trees.
rm -rf "$DEB_OUT"
mkdir -p "$DEB_OUT/src"
DEB_OUT=$(cd "$DEB_OUT" && pwd)
src="$DEB_OUT/src/kavrel-$cmake_version"
mkdir "$src"
tar -C . --exclude=./.git --exclude='./build*' --exclude='./obj-*' -cf - . | tar -C "$src" -xf -

# Build dependencies from debian/control (apt reads a source tree directly).
if ! (cd "$src" && dpkg-checkbuilddeps >/dev/null 2>&1); then
  echo "deb: installing the build dependencies of debian/control"
  if [ -z "$apt_updated" ]; then $sudo apt-get update; apt_updated=1; fi
  $sudo env DEBIAN_FRONTEND=noninteractive apt-get build-dep -y --no-install-recommends "$src"
fi

echo "deb: building in $src (log: $DEB_OUT/build.log)"
if ! (cd "$src" && DEB_BUILD_OPTIONS="${DEB_BUILD_OPTIONS:+$DEB_BUILD_OPTIONS }parallel=$JOBS" \
        dpkg-buildpackage -us -uc -b) >"$DEB_OUT/build.log" 2>&1; then
  tail -n 60 "$DEB_OUT/build.log" >&2
  echo "deb: dpkg-buildpackage failed; whole log in $DEB_OUT/build.log" >&2
  exit 1
fi

mv "$DEB_OUT"/src/*.deb "$DEB_OUT"/src/*.changes "$DEB_OUT"/src/*.buildinfo "$DEB_OUT"/
rm -rf "$DEB_OUT/src"

changes=$(ls "$DEB_OUT"/kavrel_*.changes)
echo "deb: lintian $(basename "$changes")"
lintian_status=0
lintian --fail-on error --info "$changes" >"$DEB_OUT/lintian.txt" 2>&1 || lintian_status=$?
cat "$DEB_OUT/lintian.txt"
if [ "$lintian_status" -ne 0 ]; then
  echo "deb: lintian reported errors (exit $lintian_status)" >&2
  exit 1
fi

echo "deb: packages in $DEB_OUT:"
ls -1 "$DEB_OUT"/*.deb
