#!/usr/bin/env bash
# Installs every Debian 12 package Vantor needs to build, run and test.
set -euo pipefail

packages=(
    # build
    cmake g++ pkg-config
    qt6-base-dev qt6-base-dev-tools libgl-dev
    libplist-dev libsqlite3-dev libzstd-dev libblkid-dev
    # run: session bus, desktop integration
    dbus dbus-bin dbus-daemon libglib2.0-bin dex
    # tests: third-party readers, a display, fonts, the helper's file system
    libplist-utils sqlite3 python3 xvfb xauth xdotool fonts-dejavu-core
    # UPower and power-profiles-daemon stood in for on a private system bus
    python3-dbusmock
    # the accessibility test: the AT-SPI bus and its Python reader
    at-spi2-core python3-pyatspi
    btrfs-progs btrfs-compsize
    # the installed desktop metadata, checked with the desktop's own tools
    desktop-file-utils appstream man-db
    # fuzzing and sanitizers
    clang-14 libclang-rt-14-dev libfuzzer-14-dev
    # the format check
    clang-format
)

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi

sudo=()
if [ "$(id -u)" -ne 0 ]; then
    sudo=(sudo)
fi
echo "Installing: ${missing[*]}"
"${sudo[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
