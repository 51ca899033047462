#!/bin/sh
# Saves docs/main-window.png and docs/preferences-window.png: starts a private Xvfb on a free
# display, runs the screenshot tool on it, and stops that Xvfb (by its process id) however the
# tool ends.
#   make_screenshots.sh TOOL OUTPUT_FOLDER
set -eu

tool=$1
out=$2
mkdir -p "$out"

work=$(mktemp -d)
xvfb_pid=
cleanup() {
    if [ -n "$xvfb_pid" ]; then
        kill "$xvfb_pid" 2>/dev/null || true
        wait "$xvfb_pid" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT INT TERM HUP

# Xvfb picks a free display itself and writes its number to file descriptor 3.
Xvfb -displayfd 3 -screen 0 1280x1024x24 -nolisten tcp 3>"$work/display" 2>"$work/xvfb.log" &
xvfb_pid=$!
tries=0
while [ ! -s "$work/display" ]; do
    tries=$((tries + 1))
    if [ "$tries" -gt 100 ] || ! kill -0 "$xvfb_pid" 2>/dev/null; then
        echo "Xvfb did not start:" >&2
        cat "$work/xvfb.log" >&2
        exit 1
    fi
    sleep 0.1
done
display=:$(head -n 1 "$work/display")

# A private home so that no desktop settings of the caller change the look.
env -u WAYLAND_DISPLAY DISPLAY="$display" QT_QPA_PLATFORM=xcb HOME="$work" XDG_CONFIG_HOME="$work/config" \
    XDG_RUNTIME_DIR="$work" "$tool" "$out"
