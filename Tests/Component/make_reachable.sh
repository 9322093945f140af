#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
#
# make_reachable.sh DIRECTORY
#
# Lets every user reach DIRECTORY by its path: a checkout may stand in somebody's private home, and some tests run
# its programs as another user. Only for a mount namespace of one's own: where a directory on the way is closed, an
# open empty one is mounted over it, with nothing in it but the way to DIRECTORY.
set -eu
tree=$(readlink -f "$1")
way=
IFS=/ read -ra names <<<"${tree#/}"
for name in "${names[@]}"; do
  way=$way/$name
  [ "$way" != "$tree" ] || break
  mode=$(stat -c %a "$way")
  (( 8#$mode & 1 )) && continue
  keep=$(mktemp -d /run/reachable.XXXXXX)
  mount --bind "$tree" "$keep"
  mount -t tmpfs -o mode=755 reachable "$way"
  mkdir -p "$tree"
  mount --bind "$keep" "$tree"
  umount "$keep"
  rmdir "$keep"
  break
done
