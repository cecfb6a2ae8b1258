#!/usr/bin/env bash
# Installs what is needed, builds, installs for this user (~/.local) and starts
# vantor-preferences. Without a display it renders the window to a PNG instead; without a
# session bus it starts a private one.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh
cmake --install build --prefix "$HOME/.local" >/dev/null
echo "Installed into $HOME/.local (pane: $HOME/.local/lib/vantor/Vantor.prefPane)"

host=("$HOME/.local/bin/vantor-preferences")
if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ]; then
    shot="$PWD/vantor-preferences.png"
    echo "No display: rendering the window offscreen to $shot"
    host+=(-platform offscreen --screenshot "$shot")
fi
if [ -z "${DBUS_SESSION_BUS_ADDRESS:-}" ] && [ ! -S "${XDG_RUNTIME_DIR:-/nonexistent}/bus" ]; then
    echo "No session bus: starting a private one"
    exec dbus-run-session -- "${host[@]}"
fi
exec "${host[@]}"
