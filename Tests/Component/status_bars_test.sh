#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Inside rig.sh, as a user with a display: the configurations of docs/status-bars.md in the real bars. What Waybar and
# polybar draw, and what i3blocks hands to its bar, tells whether they understood the lines.
# usage: status_bars_test.sh VIMBREL RELAY
set -u
vimbrel=$1 relay=$2
fail() { echo "status_bars_test.sh: $bar: $1"; tail -20 ./*.log 2>/dev/null; exit 1; }
bar=machine
for tool in sway waybar grim i3blocks polybar import; do
  [ -n "$(command -v $tool)" ] || { echo "SKIPPED: $tool is not installed"; exit 77; }
done
[ "$(id -u)" != 0 ] || { echo "SKIPPED: sway does not run as root"; exit 77; }
echo '{}' >world.json

# await STATE WHAT: until the bar shows that state.
await() { for _ in $(seq 100); do shows "$1" && return; sleep 0.1; done; fail "never shows $2"; }
# A bar that is running lives through the application's life, and its follower ends with it.
live_with_it() {
  local program=$1 application
  await stopped "that the application is stopped"
  "$vimbrel" run --simulate world.json --lines >vimbrel.log 2>&1 &
  application=$!
  # Not every bar has another colour for it.
  for _ in $(seq 100); do "$vimbrel" status --json >/dev/null 2>&1 && break; sleep 0.1; done
  await idle "an idle application"
  "$relay" --agent claude --state working --session-id s1
  await working "a working agent"
  kill "$application"
  wait "$application"
  await stopped "that the application has ended"
  kill -TERM -- "$program"
  for _ in $(seq 100); do pgrep -f -- "status --format $bar --follow" >/dev/null || return 0; sleep 0.1; done
  fail "the follower outlives its bar"
}
# has_colour PICTURE (a ppm) COLOUR PIXELS: whether so many pixels have it, six hexadecimal digits.
has_colour() {
  /usr/bin/python3 - "$@" <<'PYTHON'
import re
import sys
picture = open(sys.argv[1], "rb").read()
width, height = map(int, re.match(rb"P6\s+(\d+)\s+(\d+)\s+255\s", picture).groups())
pixels = picture[-width * height * 3:]
wanted = bytes.fromhex(sys.argv[2])
found = sum(pixels[i:i + 3] == wanted for i in range(0, len(pixels), 3))
sys.exit(0 if found >= int(sys.argv[3]) else 1)
PYTHON
}

bar=i3blocks
cat >i3blocks.conf <<CONF
[vimbrel]
command=$vimbrel status --format i3blocks --follow
interval=persist
format=json
CONF
shows() {
  local -A text=([stopped]='"off"' [idle]='"idle"' [working]='"1 working (simulated)"')
  tail -n 1 i3blocks.out 2>/dev/null | grep -q "\"full_text\":${text[$1]}"
}
setsid i3blocks -c i3blocks.conf >i3blocks.out 2>i3blocks.log &
# i3bar and swaybar end their status program with all that it started; alone it waits for what it started.
live_with_it -$!

bar=polybar
cat >polybar.ini <<INI
[bar/top]
width = 100%
height = 30
background = #000000
font-0 = DejaVu Sans:antialias=false
modules-right = vimbrel
[module/vimbrel]
type = custom/script
exec = $vimbrel status --format polybar --follow
tail = true
click-left = $vimbrel pause 45m
INI
shows() {
  local -A colour=([stopped]=909090 [idle]=909090 [working]=4caf50)  # the same grey for what needs no look
  import -silent -window root -depth 8 shot.ppm && has_colour shot.ppm "${colour[$1]}" 10
}
polybar -c polybar.ini top >polybar.log 2>&1 &
live_with_it $!

bar=waybar
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
shows() {
  local -A colour=([stopped]=ff0000 [idle]=0000ff [working]=00ff00)
  grim -t ppm shot.ppm 2>/dev/null && has_colour shot.ppm "${colour[$1]}" 500
}
GDK_BACKEND=wayland waybar -c waybar.json -s waybar.css >waybar.log 2>&1 &
live_with_it $!
