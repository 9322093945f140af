#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
#
# Runs a command among real system services that nobody else sees, and ends them all with it.
#
#   rig.sh [--user NAME] [--with PART[,PART…]] [--deny ACTION] [--desktop NAME] -- COMMAND [ARGUMENT…]
#
# The command runs in a mount and process namespace of its own with a private /run and /tmp, a fresh HOME, and
# these parts:
#   system-bus        a private system bus (also brought by the next two)
#   logind            the real systemd-logind
#   polkit            the real polkitd with the distribution's rules only
#   session           a private session bus (also brought by those below that need it)
#   gnome-session     org.gnome.SessionManager         } mocks with the behaviour of the real services;
#   power-management  org.freedesktop.PowerManagement  } mock_desktop.py describes them
#   screensaver       org.freedesktop.ScreenSaver      }
#   screensaver-bare  the same, answering only at /ScreenSaver and with the cookie 0
#   display           an X11 display (the real Xvfb), which $DISPLAY names
#   notifications     the real notification daemon dunst, on the display and the session bus
#   portal            the real xdg-desktop-portal; its desktop is a mock, described there too
# --user runs the command as that user: polkit never refuses root anything.
# --deny makes polkit refuse one action (org.freedesktop.login1.inhibit-block-idle) to everybody but root.
# --desktop sets XDG_CURRENT_DESKTOP.
#
# The command finds VIMBREL_RIG, a directory with the pipe "control". A line written there is an order:
# "start PART", "stop PART", "kill PART" (SIGKILL), "restart PART"; when it is done, one line with "ok" or
# "failed" can be read from the pipe "answer".
#
# The exit status is the command's; 77 with one line of explanation when this machine cannot do it, or 1
# instead of 77 with VIMBREL_REQUIRE_COMPONENTS=1.
set -u

here=$(cd "$(dirname "$0")" && pwd)
user= parts= deny= desktop=
usage() { echo "rig.sh: $1; see the top of the script" >&2; exit 2; }
skip() {
  echo "SKIPPED: $1"
  [ "${VIMBREL_REQUIRE_COMPONENTS:-}" = 1 ] && exit 1
  exit 77
}
original=("$@")
while [ $# -gt 0 ]; do
  case $1 in
    --user) user=${2:?}; shift 2 ;;
    --with) parts=${2:?}; shift 2 ;;
    --deny) deny=${2:?}; shift 2 ;;
    --desktop) desktop=${2:?}; shift 2 ;;
    --) shift; break ;;
    *) usage "unknown option $1" ;;
  esac
done
[ $# -gt 0 ] || usage "no command"

if [ -z "${VIMBREL_RIG_INSIDE:-}" ]; then
  for tool in dbus-daemon gdbus setpriv unshare; do
    [ -n "$(command -v $tool)" ] || skip "$tool is not installed"
  done
  namespaces=(-mpf --kill-child --mount-proc --propagation private)
  if [ "$(id -u)" != 0 ]; then
    [ -z "$user" ] || skip "only root can run a command as $user"
    namespaces+=(-Ur)
  fi
  unshare "${namespaces[@]}" true 2>/dev/null || skip "this machine allows no namespaces"
  VIMBREL_RIG_INSIDE=1 exec unshare "${namespaces[@]}" "$0" "${original[@]}"
fi

# Process 1 ignores what it has no handler for.
trap 'exit 143' TERM INT

# From here on: process 1 of the namespace, which takes everything down with it.
unset VIMBREL_RIG_INSIDE
has() { [[ ",$parts," == *",$1,"* ]]; }
fail() { echo "rig.sh: $1" >&2; exit 1; }

mount -t tmpfs -o mode=755 rig /run || fail "cannot mount a private /run"
mount -t tmpfs -o mode=1777 rig /run/lock 2>/dev/null
[ -z "$user" ] || "$here/make_reachable.sh" "$here/../.." || fail "the programs cannot be made reachable"
mkdir -p /run/dbus /run/user /run/udev /run/rig/home /run/rig/log \
  /run/systemd/{inhibit,sessions,seats,users,machines,shutdown}
if [ -d /etc/polkit-1/rules.d ]; then
  # The rules of this machine's administrator are none of the test's business.
  mount -t tmpfs -o mode=755 rig /etc/polkit-1/rules.d || fail "cannot hide the local polkit rules"
  [ -z "$deny" ] || cat > /etc/polkit-1/rules.d/00-deny.rules <<EOF
polkit.addRule(function(action, subject) {
  if (action.id == "$deny") return polkit.Result.NO;
});
EOF
fi

uid=$(id -u "${user:-root}") || fail "no user $user"
runtime=/run/user/$uid
mkdir -m 700 "$runtime"
chown "$uid" "$runtime" /run/rig/home 2>/dev/null
asUser() { if [ -n "$user" ]; then setpriv --reuid="$user" --regid="$(id -g "$user")" --clear-groups "$@"; else "$@"; fi; }
# Nobody writes to a file of counters that another user began.
if [ -n "$user" ] && [ -n "${LLVM_PROFILE_FILE:-}" ]; then
  export LLVM_PROFILE_FILE=${LLVM_PROFILE_FILE%/*}/$user-${LLVM_PROFILE_FILE##*/}
fi
# Takes the place of a background shell, so that its process id is the command's.
execAsUser() { if [ -n "$user" ]; then exec setpriv --reuid="$user" --regid="$(id -g "$user")" --clear-groups "$@"; else exec "$@"; fi; }

export VIMBREL_RIG=/run/rig HOME=/run/rig/home XDG_RUNTIME_DIR=$runtime XDG_CURRENT_DESKTOP=$desktop
export PYTHONDONTWRITEBYTECODE=1
unset DBUS_SYSTEM_BUS_ADDRESS DBUS_SESSION_BUS_ADDRESS DISPLAY WAYLAND_DISPLAY XDG_SESSION_ID
unset XDG_CONFIG_HOME XDG_DATA_HOME XDG_STATE_HOME XDG_CACHE_HOME NOTIFY_SOCKET JOURNAL_STREAM

# bus KIND SOCKET: a bus on which everything is allowed; who may do what is polkit's part.
bus() {
  cat > "/run/rig/$1.conf" <<EOF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>$1</type>
  <keep_umask/>
  <listen>unix:path=$2</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
    <allow user="*"/>
  </policy>
</busconfig>
EOF
}

declare -A process
wait_for_name() { gdbus wait "--$1" --timeout 10 "$2" 2>/dev/null; }
start_part() {
  local log=/run/rig/log/$1
  case $1 in
    system-bus)
      bus system /run/dbus/system_bus_socket
      rm -f /run/dbus/system_bus_socket  # One that was killed leaves it.
      dbus-daemon --config-file=/run/rig/system.conf --nofork 2>>"$log" & process[$1]=$!
      for _ in $(seq 500); do [ -S /run/dbus/system_bus_socket ] && return; sleep 0.01; done; return 1 ;;
    session)
      bus session "$runtime/bus"
      rm -f "$runtime/bus"
      execAsUser dbus-daemon --config-file=/run/rig/session.conf --nofork 2>>"$log" & process[$1]=$!
      for _ in $(seq 500); do [ -S "$runtime/bus" ] && return; sleep 0.01; done; return 1 ;;
    logind)
      SYSTEMD_LOG_TARGET=console /lib/systemd/systemd-logind >>"$log" 2>&1 & process[$1]=$!
      wait_for_name system org.freedesktop.login1 ;;
    polkit)
      /usr/lib/polkit-1/polkitd --no-debug >>"$log" 2>&1 & process[$1]=$!
      wait_for_name system org.freedesktop.PolicyKit1 ;;
    gnome-session) mock "$1" org.gnome.SessionManager ;;
    power-management) mock "$1" org.freedesktop.PowerManagement ;;
    screensaver | screensaver-bare) mock "$1" org.freedesktop.ScreenSaver ;;
    display)
      mkdir -p -m 1777 /tmp/.X11-unix
      Xvfb -displayfd 7 -screen 0 800x600x24 -nolisten tcp -noreset 7>/run/rig/display >>"$log" 2>&1 & process[$1]=$!
      for _ in $(seq 1000); do [ -s /run/rig/display ] && return; sleep 0.01; done; return 1 ;;
    notifications)
      printf "[global]\nmarkup = full\n" >/run/rig/dunstrc
      execAsUser dunst -conf /run/rig/dunstrc >>"$log" 2>&1 & process[$1]=$!
      asUser gdbus wait --session --timeout 10 org.freedesktop.Notifications 2>/dev/null ;;
    portal)
      mock portal-desktop org.freedesktop.impl.portal.desktop.mock || return 1
      mkdir -p /run/rig/portals
      printf '[portal]\nDBusName=%s.mock\nInterfaces=org.freedesktop.impl.portal.GlobalShortcuts;\nUseIn=mock\n' \
        org.freedesktop.impl.portal.desktop >/run/rig/portals/mock.portal
      XDG_DESKTOP_PORTAL_DIR=/run/rig/portals XDG_CURRENT_DESKTOP=mock \
        execAsUser /usr/libexec/xdg-desktop-portal >>"$log" 2>&1 & process[$1]=$!
      asUser gdbus wait --session --timeout 10 org.freedesktop.portal.Desktop 2>/dev/null ;;
    *) echo "rig.sh: no part named $1" >&2; return 1 ;;
  esac
}
mock() {
  execAsUser /usr/bin/python3 "$here/mock_desktop.py" "$1" >>"/run/rig/log/$1" 2>&1 & process[$1]=$!
  asUser gdbus wait --session --timeout 10 "$2" 2>/dev/null
}
# stop_part PART SIGNAL
stop_part() {
  [ -n "${process[$1]:-}" ] || return 1
  kill "-$2" "${process[$1]}" 2>/dev/null
  wait "${process[$1]}" 2>/dev/null
  unset "process[$1]"
}
show_logs() { for log in /run/rig/log/*; do [ -s "$log" ] && { echo "--- $log"; tail -20 "$log"; }; done >&2; }

if has logind || has polkit || has system-bus; then
  ! has logind || [ -x /lib/systemd/systemd-logind ] || skip "systemd-logind is not installed"
  start_part system-bus || fail "the system bus does not start"
fi
if has polkit; then
  [ -x /usr/lib/polkit-1/polkitd ] || skip "polkitd is not installed"
  start_part polkit || { show_logs; fail "polkitd does not start"; }
fi
if has logind; then start_part logind || { show_logs; fail "systemd-logind does not start"; }; fi
if [[ $parts == *session* || $parts == *power-management* || $parts == *screensaver* ||
  $parts == *notifications* || $parts == *portal* ]]; then
  export DBUS_SESSION_BUS_ADDRESS=unix:path=$runtime/bus
  /usr/bin/python3 -c 'import dbus, gi' 2>/dev/null || skip "python3-dbus and python3-gi are not installed"
  start_part session || fail "the session bus does not start"
fi
if has display; then
  [ -n "$(command -v Xvfb)" ] || skip "Xvfb is not installed"
  start_part display || { show_logs; fail "the display does not start"; }
  DISPLAY=:$(cat /run/rig/display)
  export DISPLAY
fi
if has notifications; then [ -n "$(command -v dunst)" ] || skip "dunst is not installed"; fi
if has portal; then [ -x /usr/libexec/xdg-desktop-portal ] || skip "xdg-desktop-portal is not installed"; fi
for part in gnome-session power-management screensaver screensaver-bare notifications portal; do
  if has $part; then start_part $part || { show_logs; fail "$part does not start"; }; fi
done

mkfifo -m 666 /run/rig/control /run/rig/answer
command=("$@")
if [ -n "$user" ] && ! asUser test -x "${command[0]}" && [ -f "${command[0]}" ]; then
  # The user cannot reach the build directory.
  install -Dm 755 "${command[0]}" "/run/rig/bin/$(basename "${command[0]}")"
  command[0]=/run/rig/bin/$(basename "${command[0]}")
fi
# The pipes are open at both ends here, so that they have no end between two orders.
exec 8<>/run/rig/control 9<>/run/rig/answer
(cd /run/rig/home && asUser "${command[@]}" 8<&- 9<&-; echo "exit $?" >&8) &
(sleep 170; echo "rig.sh: the command takes longer than 170 seconds" >&2; echo "exit 124" >&8) &

while read -r order part <&8; do
  result=ok
  case $order in
    exit)
      [ "$part" = 0 ] || [ "$part" = 77 ] || show_logs
      [ "$part" = 77 ] && [ "${VIMBREL_REQUIRE_COMPONENTS:-}" = 1 ] && part=1
      exit "$part" ;;
    start) start_part "$part" || result=failed ;;
    stop) stop_part "$part" TERM || result=failed ;;
    kill) stop_part "$part" KILL || result=failed ;;
    restart) { stop_part "$part" TERM && start_part "$part"; } || result=failed ;;
    *) result=failed ;;
  esac
  echo $result >&9
done
