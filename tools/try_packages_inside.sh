#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# The part of tools/try_packages.sh that runs inside the booted root, as root; every line that must hold ends the boot
# when it does not.
set -eux
export LC_ALL=C.UTF-8
user() { systemd-run --quiet --pipe --wait --collect --user -M somebody@ "$@" </dev/null; }
units() { systemctl --user -M somebody@ "$@"; }
until_true() {
  { set +x; } 2>/dev/null
  for _ in $(seq 150); do
    "$@" && { set -x; return 0; }
    sleep 0.1
  done
  echo "never: $*" >&2
  return 1
}
holds() { user vimbrel status --json | grep -q '"isHolding": *true'; }
holds_nothing() { ! systemd-inhibit --list --no-pager | grep -q '^Vimbrel.*somebody\|^Vimbrel.*idle'; }
# The command's output has no such line.
lacks() {
  local pattern=$1
  shift
  "$@" >/tmp/output
  if grep -e "$pattern" /tmp/output; then return 1; fi
}
ask() {
  printf '%s' "$1" | socat -t5 - UNIX-CONNECT:/run/vimbrel-helper.sock
  echo
}

# The helper waits for the first request to its socket.
[ "$(systemctl is-active vimbrel-helper.service || true)" = inactive ]
loginctl enable-linger somebody
until_true units is-system-running --wait

# The second of the two commands; the first installed the packages. A rehearsal says what it does and does nothing.
user vimbrel setup --dry-run | grep 'It would now: Enable the user service vimbrel.service'
[ "$(units is-enabled vimbrel || true)" = disabled ]
user vimbrel setup --yes
[ "$(units is-active vimbrel)/$(units is-enabled vimbrel)" = active/enabled ]
[ "$(user vimbrel settings get launchAtLogin)" = on ]
# Again it finds its work done.
lacks '-> ' user vimbrel setup --yes
user vimbrel doctor

# An agent works: the machine is held, by the real logind of this root.
user vimbrel-relay --agent claude --state working --session-id s1
until_true holds
systemd-inhibit --list --no-pager --mode=block
systemd-inhibit --list --no-pager | grep -i vimbrel
user vimbrel status

# What the unit gives up, seen from outside.
pid=$(units show -P MainPID vimbrel)
grep -E '^(CapEff|NoNewPrivs|Seccomp):' "/proc/$pid/status" | tr -s '\n\t' ' ' | grep 'CapEff: 0* NoNewPrivs: 1 Seccomp: 2'

# Killed: released at once by the kernel, and started again by the service manager.
kill -9 "$pid"
restarted() { [ "$(units show -P NRestarts vimbrel)/$(units show -P ActiveState vimbrel)" = 1/active ]; }
until_true restarted
user vimbrel-relay --agent claude --state completed --session-id s1

# The helper starts with the first request to its socket, holds the lid while a lease runs, and gives it back.
[ "$(systemctl is-active vimbrel-helper.socket)" = active ]
[ "$(stat -c %U:%G:%a /run/vimbrel-helper.sock)" = root:vimbrel:666 ]
ask '{"command":"acquire","leaseId":"11111111-1111-1111-1111-111111111111","ttlSeconds":60}' | grep '"ok":true'
systemd-inhibit --list --no-pager | grep handle-lid-switch
[ "$(systemctl is-active vimbrel-helper.service)" = active ]
# Somebody without a seat is refused by polkit.
user sh -c 'printf "{\"command\":\"acquire\",\"leaseId\":\"22222222-2222-2222-2222-222222222222\",\"ttlSeconds\":60}" | socat -t5 - UNIX-CONNECT:/run/vimbrel-helper.sock' | grep '"ok":false'
ask '{"command":"release"}' | grep '"ok":true'
lacks handle-lid-switch systemd-inhibit --list --no-pager

# Ten times the figures that docs/security.md names.
exposure() { "$@" >/tmp/exposure || { cat /tmp/exposure; return 1; }; tail -n 1 /tmp/exposure; }
exposure systemd-analyze security --no-pager --threshold=11 vimbrel-helper.service
exposure runuser -u somebody -- env XDG_RUNTIME_DIR="/run/user/$(id -u somebody)" \
  systemd-analyze security --user --no-pager --threshold=59 vimbrel.service

# The way back that the documents name.
units disable --now vimbrel
until_true holds_nothing
# shellcheck disable=SC2046
dpkg --purge $(cat /try.names)
[ ! -e /run/vimbrel-helper.sock ]
[ "$(systemctl is-active vimbrel-helper.socket || true)" = inactive ]
units daemon-reload

# The tarball, where its unit is found, and where it is not: then the unit is one of the user's own.
runs_from() { [ "$(readlink "/proc/$(units show -P MainPID "$1")/exe")" = "$2" ]; }
find /usr/local -type d >/tmp/directories
tar -C /usr/local --strip-components=1 -xf /try.tar
units daemon-reload
user /usr/local/bin/vimbrel setup --yes
runs_from vimbrel /usr/local/bin/vimbrel
user man -w vimbrel vimbrel-settings
units disable --now vimbrel
tar -tf /try.tar | sed -n 's,^[^/]*/,,p' | grep -v '/$' | (cd /usr/local && xargs rm -f)
units daemon-reload
mkdir -p /opt/elsewhere
tar -C /opt/elsewhere --strip-components=1 -xf /try.tar
user /opt/elsewhere/bin/vimbrel setup --yes
runs_from com.vimbrel.app /opt/elsewhere/bin/vimbrel
user /opt/elsewhere/bin/vimbrel agents setup claude --no-wait | grep /opt/elsewhere/bin/vimbrel-relay
user /opt/elsewhere/bin/vimbrel settings set launchAtLogin off
units stop com.vimbrel.app
[ -z "$(find /home/somebody/.config -name '*vimbrel*' -not -path '*/com.vimbrel.app*')" ]
rm -r /opt/elsewhere
find /usr/local -depth -type d | grep -vxFf /tmp/directories | xargs rmdir
echo ALL-HELD
