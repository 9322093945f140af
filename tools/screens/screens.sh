#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Takes the pictures of docs/screens anew:  tools/screens/screens.sh [PART-OF-A-NAME…]
# Needs a build (VIMBREL_BUILD, otherwise build/release). The pictures at twice the size go into build/screens,
# but for those that stand in docs/screens already.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/../.."
build=${VIMBREL_BUILD:-$PWD/build/release}
# From a place that is nobody's: paths are seen in the pictures.
export VIMBREL_BUILD=/tmp/vimbrel
mkdir -p build/screens docs/screens
for program in VimbrelApp/vimbrel VimbrelRelay/vimbrel-relay VimbrelTray/vimbrel-tray; do
  install -D "$build/Sources/$program" "$VIMBREL_BUILD/Sources/$program"
done
cp -r "$build/Sources/share" "$VIMBREL_BUILD/Sources"
trap 'rm -rf "$VIMBREL_BUILD"' EXIT
Tests/Desktop/display.sh --composited --size 1280x1024 -- /usr/bin/python3 tools/screens/take.py "$PWD/docs/screens" 1 "$@"
QT_SCALE_FACTOR=2 Tests/Desktop/display.sh --composited --size 2560x2048 -- \
  /usr/bin/python3 tools/screens/take.py "$PWD/build/screens" 2 "$@"
for picture in build/screens/*; do
  [ ! -f "docs/screens/${picture##*/}" ] || cp "$picture" docs/screens/
done
