#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Tries the packages of build/packages as a person would, in a fresh Debian 12 root: installs an older version, upgrades
# it, boots the root with its own systemd, protects it with two commands, purges everything, and does the same with the
# tarball. Fails when anything is left behind. Needs root, namespaces and, once, a Debian mirror; nothing of this machine
# is touched but build/.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
packages=${1:-build/packages}
mirror=${VIMBREL_MIRROR:-http://deb.debian.org/debian}
root=$PWD/build/root-try

say() { printf '==> %s\n' "$*"; }
fail() {
  printf 'try_packages: %s\n' "$*" >&2
  exit 1
}

if [ "$(id -u)" -ne 0 ] || ! unshare -mpf true 2>/dev/null; then
  [ -z "${VIMBREL_REQUIRE_COMPONENTS:-}" ] || fail "needs root and namespaces"
  echo "try_packages: SKIPPED: needs root and namespaces"
  exit 0
fi
ls "$packages"/*.deb >/dev/null 2>&1 || fail "no packages in $packages; make them with ./dev package"
(cd "$packages" && sha256sum --quiet -c SHA256SUMS) || fail "the checksums do not match"

# The root holds what the packages depend on, so it is made anew when that changes.
included=systemd,systemd-sysv,dbus,dbus-user-session,libpam-systemd,polkitd,socat,man-db
base=build/root-base-$({ echo $included; for each in "$packages"/*.deb; do dpkg-deb -f "$each" Depends; done; } |
  sha256sum | head -c 12).tar

inside() { chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive "$@"; }
quietly() { "$@" >build/try.log 2>&1 || { tail -n 30 build/try.log >&2; fail "failed: $*"; }; }

# What is there: every file and directory but what a package manager, a boot and a user leave behind by themselves.
inventory() {
  (cd "$root" && find . -xdev \( -path ./proc -o -path ./sys -o -path ./dev -o -path ./tmp -o -path ./home -o -path ./run -o -path ./root \
    -o -path ./var/log -o -path ./var/cache -o -path ./var/lib/apt -o -path ./var/lib/dpkg -o -path ./var/lib/systemd -o -path ./var/tmp \) \
    -prune -o -printf '%p %l\n' | sort)
  # Accounts, by name; the backups that the tools leave beside these files are not ours.
  cut -d: -f1 "$root/etc/group" | sed 's/^/group /' | sort
  cut -d: -f1 "$root/etc/passwd" | sed 's/^/user /' | sort
}

if [ ! -f "$base" ]; then
  say "making a fresh root"
  rm -rf "$root"
  quietly debootstrap --variant=minbase --include=$included bookworm "$root" "$mirror"
  # The libraries that the packages want are not part of what is tried.
  mkdir -p "$root/tmp/debs"
  cp "$packages"/*.deb "$root/tmp/debs/"
  quietly inside sh -c 'apt-get install -y -q --no-install-recommends /tmp/debs/*.deb'
  quietly inside sh -c 'cd /tmp/debs && dpkg --purge $(for d in *.deb; do dpkg-deb -f $d Package; done)'
  rm -rf "$root/tmp/debs"
  useradd --root "$root" --create-home --shell /bin/bash somebody
  tar -C "$root" -cf "$base.new" .
  mv "$base.new" "$base"
fi
say "unpacking the fresh root"
rm -rf "$root"
mkdir -p "$root"
tar -C "$root" -xf "$base"
mkdir -p "$root/tmp/old" "$root/tmp/new"
cp "$packages"/*.deb "$root/tmp/new/"
for each in "$packages"/*.deb; do
  # The same package as an older version: what differs between versions is in the maintainer scripts' arguments.
  dpkg-deb -R "$each" "$root/tmp/old/tree"
  sed -i 's/^Version: .*/Version: 0.0.1/' "$root/tmp/old/tree/DEBIAN/control"
  dpkg-deb --root-owner-group -b "$root/tmp/old/tree" "$root/tmp/old/$(basename "$each")" >/dev/null
  rm -rf "$root/tmp/old/tree"
done
names=$(for each in "$packages"/*.deb; do dpkg-deb -f "$each" Package; done)
inventory >build/before.txt

say "installing $(echo "$names" | tr '\n' ' ')as an older version"
quietly inside sh -c 'dpkg -i /tmp/old/*.deb'
say "upgrading"
quietly inside sh -c 'dpkg -i /tmp/new/*.deb'
inside vimbrel --version
quietly inside man -w vimbrel vimbrel-relay vimbrel-helper vimbrel-settings vimbrel-control
quietly inside systemd-analyze --man=no verify /lib/systemd/system/vimbrel-helper.service /lib/systemd/system/vimbrel-helper.socket

say "booting it"
cp tools/try_packages_inside.sh "$root/try.sh"
zstd -q -d -o "$root/try.tar" "$packages"/vimbrel-*-linux-*.tar.zst
echo "$names" | tr '\n' ' ' >"$root/try.names"
cat >"$root/etc/systemd/system/try.target" <<'UNIT'
[Unit]
Requires=dbus.service systemd-logind.service
Wants=try.service sockets.target
After=dbus.service systemd-logind.service sockets.target
AllowIsolate=yes
UNIT
cat >"$root/etc/systemd/system/try.service" <<'UNIT'
[Unit]
After=dbus.service systemd-logind.service sockets.target
SuccessAction=exit-force
FailureAction=exit-force
[Service]
Type=oneshot
TimeoutStartSec=180
StandardOutput=append:/try.out
StandardError=append:/try.out
ExecStart=/bin/bash /try.sh
UNIT
echo 11111111111111111111111111111111 >"$root/etc/machine-id"
: >"$root/try.out"
# /run is private, so that the container's manager is not mistaken for this machine's.
unshare -mpf --kill-child --mount-proc bash -c "
  mount -t tmpfs tmpfs /run && mkdir -p /run/systemd/system && mount -t cgroup2 none /sys/fs/cgroup &&
  timeout 240 systemd-nspawn -q -D '$root' --boot --register=no --keep-unit --private-network --console=pipe \
    systemd.unit=try.target systemd.show_status=no" >build/boot.log 2>&1 || true
sed 's/^/    /' "$root/try.out"
grep -q '^ALL-HELD$' "$root/try.out" || {
  tail -n 20 build/boot.log >&2
  fail "the booted root did not hold what was asked of it"
}

say "looking for what was left behind"
rm -f "$root"/try.sh "$root"/try.tar "$root"/try.names "$root"/try.out "$root"/etc/systemd/system/try.* "$root"/etc/machine-id
sed -i '/ \.\/etc\/machine-id\|^\.\/etc\/machine-id /d' build/before.txt
inventory >build/after.txt
if ! diff <(grep -v '/etc/\(group\|gshadow\|passwd\|shadow\|subuid\|subgid\)-\? \|\.pwd\.lock' build/before.txt) \
  <(grep -v '/etc/\(group\|gshadow\|passwd\|shadow\|subuid\|subgid\)-\? \|\.pwd\.lock' build/after.txt) >build/left.txt; then
  cat build/left.txt
  fail "purging does not give the root back as it was"
fi
ls -A "$root/home/somebody/.local/share/Vimbrel" >/dev/null || fail "the user's own data must survive a purge"
say "nothing is left but the user's own data"
