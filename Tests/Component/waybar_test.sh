#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Inside rig.sh, as a user: the configuration of docs/status-bars.md in the real Waybar, under a compositor without a
# screen. What Waybar draws tells whether it understood: each state has a colour of its own.
# usage: waybar_test.sh VIMBREL RELAY
set -u
vimbrel=$1 relay=$2
fail() { echo "waybar_test.sh: $1"; cat waybar.log sway.log 2>/dev/null | tail -20; exit 1; }
for tool in sway waybar grim; do
  [ -n "$(command -v $tool)" ] || { echo "SKIPPED: $tool is not installed"; exit 77; }
done
[ "$(id -u)" != 0 ] || { echo "SKIPPED: sway does not run as root"; exit 77; }
export WLR_BACKENDS=headless WLR_RENDERER=pixman WLR_LIBINPUT_NO_DEVICES=1 XDG_CURRENT_DESKTOP=sway
unset DISPLAY WAYLAND_DISPLAY
printf 'output HEADLESS-1 resolution 640x200\noutput * bg #000000 solid_color\n' >sway.conf
sway -c sway.conf >sway.log 2>&1 &
for _ in $(seq 300); do compgen -G "$XDG_RUNTIME_DIR/wayland-[0-9]" >/dev/null && break; sleep 0.05; done
WAYLAND_DISPLAY=$(basename "$(compgen -G "$XDG_RUNTIME_DIR/wayland-[0-9]" | head -1)")
[ -n "$WAYLAND_DISPLAY" ] || fail "sway does not start"
export WAYLAND_DISPLAY

cat >waybar.json <<JSON
{ "layer": "top", "height": 30, "modules-right": ["custom/vimbrel"],
  "custom/vimbrel": { "exec": "$vimbrel status --format waybar --follow", "return-type": "json" } }
JSON
cat >waybar.css <<'CSS'
* { background: #000000; color: #000000; }
#custom-vimbrel { padding: 0 40px; }
#custom-vimbrel.stopped { background: #ff0000; }
#custom-vimbrel.idle { background: #0000ff; }
#custom-vimbrel.working { background: #00ff00; }
CSS
# shows COLOUR (six hexadecimal digits): whether many pixels have it.
shows() {
  grim -t ppm shot.ppm 2>/dev/null || return 1
  /usr/bin/python3 - "$1" <<'PYTHON'
import sys
pixels = open("shot.ppm", "rb").read()[-640 * 200 * 3:]
wanted = bytes.fromhex(sys.argv[1])
sys.exit(0 if sum(pixels[i:i + 3] == wanted for i in range(0, len(pixels), 3)) > 500 else 1)
PYTHON
}
await() { for _ in $(seq 100); do shows "$1" && return; sleep 0.1; done; fail "Waybar never shows $2"; }

GDK_BACKEND=wayland waybar -c waybar.json -s waybar.css >waybar.log 2>&1 &
bar=$!
await ff0000 "that the application is stopped"
echo '{}' >world.json
"$vimbrel" run --simulate world.json --lines >vimbrel.log 2>&1 &
application=$!
await 0000ff "an idle application"
"$relay" --agent claude --state working --session-id s1
await 00ff00 "a working agent"
kill "$application"
await ff0000 "that the application has ended"
kill "$bar"
for _ in $(seq 100); do pgrep -f -- "--format waybar --follow" >/dev/null || exit 0; sleep 0.1; done
fail "the follower outlives its bar"
