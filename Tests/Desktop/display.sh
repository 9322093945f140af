#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
#
# Runs a command on a virtual display of its own, with a session bus, a window manager, and a panel's tray.
#
#   display.sh [--size WxH] [--tray trayer|xfce4-panel|none] [--accessible] [--composited] -- COMMAND [ARGUMENT…]
#
# Everything ends with the command, whose status is this script's. 77 with one line when something is missing,
# or 1 instead with VIMBREL_REQUIRE_COMPONENTS=1.
set -u
size=1280x800 tray=trayer accessible= composited=
skip() {
  echo "SKIPPED: $1"
  [ "${VIMBREL_REQUIRE_COMPONENTS:-}" = 1 ] && exit 1
  exit 77
}
original=("$@")
while [ $# -gt 0 ]; do
  case $1 in
    --size) size=$2; shift 2 ;;
    --tray) tray=$2; shift 2 ;;
    --accessible) accessible=1; shift ;;
    --composited) composited=1; shift ;;
    --) shift; break ;;
    *) echo "display.sh: unknown option $1" >&2; exit 2 ;;
  esac
done
for tool in Xvfb openbox xprop dbus-run-session; do
  [ -n "$(command -v $tool)" ] || skip "$tool is not installed"
done
[ "$tray" = none ] || [ -n "$(command -v "$tray")" ] || skip "$tray is not installed"

if [ -z "${VIMBREL_DISPLAY_DIRECTORY:-}" ]; then
  directory=$(mktemp -d)
  # The panel keeps its settings in a home of its own: tests empty theirs while it runs.
  mkdir -m 700 "$directory/runtime" "$directory/home" "$directory/panel"
  # A bus that starts nothing by itself but what the panel keeps its settings with: no portals, no keyrings.
  mkdir "$directory/services"
  cp /usr/share/dbus-1/services/org.xfce.Xfconf.service "$directory/services" 2>/dev/null
  cat >"$directory/bus.conf" <<EOF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <keep_umask/>
  <listen>unix:tmpdir=/tmp</listen>
  <servicedir>$directory/services</servicedir>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
EOF
  # What the bus starts must not keep this script's output open.
  printf '#!/bin/sh\nexec dbus-daemon "$@" >"%s/bus.log" 2>&1\n' "$directory" >"$directory/bus"
  chmod +x "$directory/bus"
  env -u XDG_CONFIG_HOME -u XDG_DATA_HOME -u XDG_STATE_HOME -u XDG_CACHE_HOME -u WAYLAND_DISPLAY \
    VIMBREL_DISPLAY_DIRECTORY="$directory" HOME="$directory/panel" XDG_RUNTIME_DIR="$directory/runtime" \
    QT_QPA_PLATFORM=xcb \
    dbus-run-session --dbus-daemon="$directory/bus" --config-file="$directory/bus.conf" -- "$0" "${original[@]}"
  status=$?
  rm -rf "$directory"
  exit $status
fi

here=$VIMBREL_DISPLAY_DIRECTORY
children=()
finish() {
  [ ${#children[@]} = 0 ] || kill "${children[@]}" 2>/dev/null
  # A panel whose bus or display goes away first may never end by itself.
  for _ in {1..100}; do
    [ -n "$(jobs -r)" ] || return
    sleep 0.05
  done
  kill -KILL "${children[@]}" 2>/dev/null
}
trap finish EXIT
trap 'exit 143' TERM INT

mkfifo "$here/display"
Xvfb -displayfd 3 -screen 0 "${size}x24" -nolisten tcp -noreset 3>"$here/display" 2>"$here/xvfb.log" &
children+=($!)
read -r number <"$here/display" || skip "no virtual display starts here"
export DISPLAY=:$number
openbox --sm-disable >"$here/openbox.log" 2>&1 &
children+=($!)
until xprop -root _NET_SUPPORTING_WM_CHECK 2>/dev/null | grep -q window; do sleep 0.05; done
if [ -n "$composited" ]; then
  [ -n "$(command -v picom)" ] || skip "picom is not installed"
  picom --backend xrender --config /dev/null >"$here/picom.log" 2>&1 &
  children+=($!)
  until xprop -root -f _NET_WM_CM_S0 32x _NET_WM_CM_S0 >/dev/null 2>&1 && xwininfo -name picom >/dev/null 2>&1; do
    kill -0 "${children[-1]}" 2>/dev/null || skip "picom does not start here"
    sleep 0.05
  done
fi
case $tray in
  trayer) trayer --edge bottom --align right --widthtype request --height 32 --transparent false >"$here/tray.log" 2>&1 &
    children+=($!) ;;
  xfce4-panel) xfce4-panel --disable-wm-check >"$here/tray.log" 2>&1 & children+=($!) ;;
esac
if [ -n "$accessible" ]; then
  [ -x /usr/libexec/at-spi-bus-launcher ] || skip "at-spi2-core is not installed"
  /usr/libexec/at-spi-bus-launcher --launch-immediately >"$here/atspi.log" 2>&1 &
  children+=($!)
  export QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1
fi
HOME=$here/home "$@"
