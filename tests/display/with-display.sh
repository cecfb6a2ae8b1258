#!/usr/bin/env bash
# with-display.sh <command...>: runs the command on an X server of its own. The server picks
# a free display itself, so suites running side by side never take the same one.
set -euo pipefail

work=$(mktemp -d)
trap 'kill "$server" 2>/dev/null || true; wait "$server" 2>/dev/null || true; rm -rf "$work"' EXIT

# -noreset: by default the server resets whenever its last client leaves, and refuses the
# next one while it does (a probe, the accessibility registry and the program come in turns).
Xvfb -displayfd 3 -screen 0 1024x600x24 -nolisten tcp -noreset 3>"$work/display" 2>"$work/server.log" &
server=$!
for _ in $(seq 100); do
    [ -s "$work/display" ] && break
    kill -0 "$server" 2>/dev/null || { cat "$work/server.log" >&2; echo "Xvfb did not start" >&2; exit 1; }
    sleep 0.1
done
[ -s "$work/display" ] || { echo "Xvfb gave no display within 10 s" >&2; exit 1; }

DISPLAY=":$(head -n1 "$work/display")" "$@"
