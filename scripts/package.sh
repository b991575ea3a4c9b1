#!/usr/bin/env bash
# scripts/package.sh: makes the Debian packages of the committed tree in build/packages: the library, what a host is
# built with, and the debug symbols.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/setup.sh

need_packages "${BUILD_PACKAGES[@]}" build-essential dpkg-dev debhelper fakeroot
version=$(sed -n 's/^project(KroCommon VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
[ "$(dpkg-parsechangelog -S Version)" = "$version" ] || fail "debian/changelog is not of version $version"
work=build/packages
rm -rf $work
mkdir -p $work/krocommon
git archive HEAD | tar -x -C $work/krocommon
(cd $work/krocommon && DEB_BUILD_OPTIONS=parallel=2 dpkg-buildpackage -us -uc -b) >$work/build.log 2>&1 ||
    { tail -n 40 $work/build.log >&2; fail "the packages could not be built, see $work/build.log"; }
rm -rf $work/krocommon
ls $work/*.deb
