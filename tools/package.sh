#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Makes everything that people install, in build/packages: the Debian packages (lintian at its pedantic level must be
# silent), a tarball of the relocatable installation, the bill of materials, and a file with the checksums of all.
# The committed sources are what is packaged. The same commit gives the same bytes, wherever and whenever it is built.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
top=$PWD
output=${1:-$top/build/packages}
work=${2:-$top/build/package-source}

version=$(sed -n 's/^project(Vimbrel VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
[ -z "$(git status --porcelain --untracked-files=no)" ] ||
  echo "package: there are changes that are not committed; they are not packaged" >&2
SOURCE_DATE_EPOCH=$(git log -1 --format=%ct)
export SOURCE_DATE_EPOCH LC_ALL=C.UTF-8 TZ=UTC
# debhelper gives its build a home of its own, where the compiler's cache would be empty each time.
export CCACHE_DIR=${CCACHE_DIR:-$HOME/.cache/ccache} CCACHE_BASEDIR=$work CCACHE_SLOPPINESS=locale

rm -rf "$work" "$output"
mkdir -p "$work/vimbrel-$version" "$output"
git archive HEAD | tar -x -C "$work/vimbrel-$version"
cd "$work/vimbrel-$version"
cp -r Packaging/debian debian
cat >debian/changelog <<TEXT
vimbrel ($version) unstable; urgency=medium

  * What changed for users: /usr/share/doc/vimbrel/changelog.gz.

 -- $(sed -n 's/^Maintainer: //p' debian/control)  $(date -R -d "@$SOURCE_DATE_EPOCH")
TEXT
dpkg-buildpackage -b -us -uc -ui
cp ../*.deb ../*.changes ../*.buildinfo "$output/"

# The tarball holds what `cmake --install` gives, of the same build, for a prefix of /usr/local.
DESTDIR=$work/root cmake --install build/release --prefix /usr/local --strip >/dev/null
name=vimbrel-$version-linux-$(uname -m)
tar -C "$work/root/usr/local" --sort=name --owner=0 --group=0 --numeric-owner --mtime="@$SOURCE_DATE_EPOCH" \
  --transform "s,^\.,$name," -cf - . | zstd -q -19 -T1 -o "$output/$name.tar.zst"
python3 -B tools/bill_of_materials.py "$work/root/usr/local" "$version" "$(sed 's/^\(............\).*/\1/' cmake/commit.txt)" \
  >"$output/vimbrel-$version.spdx.json"

cd "$output"
# Not its spelling of programs: the compiler keeps long texts in pieces of sixteen bytes, side by side in no order, and
# what it then reads across their ends ("systemctl is not" and "t entry of the d") is in no text.
lintian --pedantic --display-info --fail-on error,warning,info,pedantic --tag-display-limit 0 \
  --suppress-tags spelling-error-in-binary ./*.changes
sha256sum ./*.deb ./*.tar.zst ./*.spdx.json >SHA256SUMS
cat SHA256SUMS
