#!/usr/bin/env bash
# with-display.sh <command...>: runs the command on an X server of its own, on a free display it picks.
set -euo pipefail
# -noreset: by default the server resets whenever its last client leaves, and refuses the
# next one while it does (a probe, the accessibility registry and the program come in turns).
exec 3< <(exec Xvfb -displayfd 1 -screen 0 1024x600x24 -nolisten tcp -noreset 2>/dev/null)
server=$!
trap 'kill "$server" 2>/dev/null || true' EXIT
read -r -t 10 -u 3 display || { echo "with-display.sh: Xvfb did not start (no display within 10 s)" >&2; exit 1; }
DISPLAY=":$display" "$@"
