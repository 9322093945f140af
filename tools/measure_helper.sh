#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Measures what the helper may do while it runs under its own unit: boots systemd in a container over a copy-on-write
# view of this machine, starts the helper there as its socket does, and prints what the kernel says of the process and
# which paths it can write. Nothing of this machine is changed. Needs root and systemd-nspawn (package
# systemd-container).
#
#   tools/measure_helper.sh build/release/Sources/VimbrelHelper/vimbrel-helper
set -euo pipefail
here=$(dirname "$(readlink -f "$0")")
helper=$(readlink -f "$1")
nspawn=${NSPAWN:-systemd-nspawn}
[ "$(id -u)" = 0 ] || { echo "measure_helper: needs root" >&2; exit 2; }
command -v "$nspawn" >/dev/null || { echo "measure_helper: $nspawn is missing (package systemd-container)" >&2; exit 2; }
if [ -z "${VIMBREL_INSIDE:-}" ]; then
  VIMBREL_INSIDE=1 exec unshare -mpf --kill-child --mount-proc --propagation private "$0" "$@"
fi

work=$(mktemp -d)
mount -t tmpfs tmpfs "$work"
mkdir "$work"/{upper,work,root}
mount -t tmpfs tmpfs /run
mkdir -p /run/systemd/system
mount -t cgroup2 none /sys/fs/cgroup
mount -t overlay overlay -o "lowerdir=/,upperdir=$work/upper,workdir=$work/work" "$work/root"
root=$work/root
install -D -m 755 "$helper" "$root/usr/libexec/vimbrel-helper"
install -m 644 "$here"/../Packaging/systemd/vimbrel-helper.{service,socket} "$root/etc/systemd/system/"
install -D -m 644 "$here"/../Packaging/polkit/com.vimbrel.helper.policy "$root/usr/share/polkit-1/actions/"
install -D -m 644 "$here"/../Packaging/sysusers.d/vimbrel.conf "$root/usr/lib/sysusers.d/" 2>/dev/null || true
# Nothing else of this machine's services takes part.
rm -rf "$root/etc/systemd/system/multi-user.target.wants" "$root/etc/systemd/system/timers.target.wants"
echo 11111111111111111111111111111111 >"$root/etc/machine-id"
cat >"$root/etc/systemd/system/measure.target" <<'TEXT'
[Unit]
Requires=dbus.service systemd-logind.service
Wants=measure.service
AllowIsolate=yes
TEXT
cat >"$root/etc/systemd/system/measure.service" <<'TEXT'
[Unit]
After=dbus.service systemd-logind.service
[Service]
Type=oneshot
StandardOutput=append:/measured
StandardError=append:/measured
ExecStart=/bin/bash /measure.sh
SuccessAction=exit-force
FailureAction=exit-force
TEXT
cat >"$root/measure.sh" <<'TEXT'
systemd-sysusers
systemctl start vimbrel-helper.socket
ask() {
  python3 - "$1" <<'PYTHON'
import socket, sys
with socket.socket(socket.AF_UNIX) as s:
    s.settimeout(10)
    s.connect("/run/vimbrel-helper.sock")
    s.sendall(sys.argv[1].encode())
    s.shutdown(socket.SHUT_WR)
    print(s.recv(8192).decode())
PYTHON
}
echo "acquire: $(ask '{"command":"acquire","leaseId":"measure","ttlSeconds":60}')"
systemd-inhibit --list --no-pager --no-legend | grep Vimbrel
pid=$(systemctl show -P MainPID vimbrel-helper)
echo "state of the unit: $(systemctl is-active vimbrel-helper)"
grep -E '^(Uid|Groups|Cap|NoNewPrivs|Seccomp|Seccomp_filters|Threads)' "/proc/$pid/status"
grep -E 'core file size|open files' "/proc/$pid/limits"
echo "memory: $(grep Pss: /proc/$pid/smaps_rollup)"
echo "descriptors: $(ls "/proc/$pid/fd" | wc -l)"
echo "network interfaces: $(nsenter -t "$pid" -n ls /sys/class/net 2>/dev/null | tr '\n' ' ')"
echo "writable directories, as the process sees them:"
nsenter -t "$pid" -m bash -c '
  for path in / /etc /usr /var /var/lib /var/lib/vimbrel /var/log /home /root /boot /run /run/systemd /tmp /var/tmp /dev /dev/shm /sys /proc/sys; do
    if touch "$path/.probe" 2>/dev/null; then echo "  $path"; rm -f "$path/.probe"; fi
  done'
echo "release: $(ask '{"command":"release","leaseId":"measure"}')"
systemctl stop vimbrel-helper.socket vimbrel-helper.service
systemctl --force --force poweroff
TEXT
touch "$root/measured"
timeout 90 "$nspawn" -q -D "$root" --boot --register=no --keep-unit --private-network --console=pipe \
  systemd.unit=measure.target systemd.show_status=no >"$work/console" 2>&1 || true
[ -s "$root/measured" ] || cat "$work/console" >&2
cat "$root/measured"
