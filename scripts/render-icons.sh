#!/usr/bin/env bash
# Renders the hicolor PNG icons from resources/icons/vantor.svg (needs librsvg2-bin). The PNGs
# are committed, so building needs no SVG renderer; run this after changing the SVG.
set -euo pipefail
cd "$(dirname "$0")/../resources/icons"
for size in 16 24 32 48 64 128 256; do
    rsvg-convert -w "$size" -h "$size" vantor.svg -o "vantor-$size.png"
done
