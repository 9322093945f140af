#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
#
# Inside Tests/Component/rig.sh, as a user: runs a command under a Wayland compositor without a screen (sway).
# The command finds SWAYSOCK and WAYLAND_DISPLAY.
#
#   wayland.sh COMMAND [ARGUMENT…]
set -u
for tool in sway swaymsg waybar grim; do
  [ -n "$(command -v $tool)" ] || { echo "SKIPPED: $tool is not installed"; exit 77; }
done
[ "$(id -u)" != 0 ] || { echo "SKIPPED: sway does not run as root"; exit 77; }
fail() { echo "wayland.sh: $1"; tail -20 sway.log; exit 1; }
export WLR_BACKENDS=headless WLR_RENDERER=pixman WLR_LIBINPUT_NO_DEVICES=1 XDG_CURRENT_DESKTOP=sway
unset DISPLAY WAYLAND_DISPLAY
cat >sway.conf <<'CONF'
output HEADLESS-1 resolution 1024x768
output * bg #000000 solid_color
xwayland disable
CONF
sway -c sway.conf >sway.log 2>&1 &
sway=$!
for _ in $(seq 600); do
  compgen -G "$XDG_RUNTIME_DIR/wayland-[0-9]" >/dev/null && compgen -G "$XDG_RUNTIME_DIR/sway-ipc.*.sock" >/dev/null && break
  sleep 0.05
done
WAYLAND_DISPLAY=$(basename "$(compgen -G "$XDG_RUNTIME_DIR/wayland-[0-9]" | head -1)")
SWAYSOCK=$(compgen -G "$XDG_RUNTIME_DIR/sway-ipc.*.sock" | head -1)
[ -n "$WAYLAND_DISPLAY" ] && [ -n "$SWAYSOCK" ] || fail "sway does not start"
export WAYLAND_DISPLAY SWAYSOCK
QT_QPA_PLATFORM=wayland "$@"
status=$?
kill "$sway" 2>/dev/null
exit $status
