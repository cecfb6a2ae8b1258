#!/usr/bin/env bash
# Installs a build tree into a scratch folder as a package would (prefix /usr) and checks the
# desktop metadata there with the desktop's own tools: every .desktop file, the AppStream
# metainfo, the icon sizes and the manual pages.
# Usage: scripts/check-install.sh [build dir]
set -euo pipefail
build=$(cd "${1:-$(dirname "$0")/../build}" && pwd)
dest=$(mktemp -d)
trap 'rm -rf "$dest"' EXIT

DESTDIR="$dest" cmake --install "$build" --prefix /usr >/dev/null
failed=0
fail() { echo "FAIL: $*"; failed=1; }

mapfile -t entries < <(find "$dest" -name '*.desktop' | sort)
[ ${#entries[@]} -gt 0 ] || fail "no .desktop file installed"
for entry in "${entries[@]}"; do
    desktop-file-validate "$entry" || fail "${entry#"$dest"}"
done
appstreamcli validate --no-net --pedantic "$dest"/usr/share/metainfo/*.metainfo.xml || fail "metainfo"

icons="$dest/usr/share/icons/hicolor"
for size in 16 24 32 48 64 128 256; do
    found=$(python3 -c 'import struct, sys; print("%dx%d" % struct.unpack(">II", open(sys.argv[1], "rb").read(24)[16:]))' \
                "$icons/${size}x${size}/apps/vantor.png" 2>/dev/null || true)
    [ "$found" = "${size}x${size}" ] || fail "no ${size}x${size} icon (${found:-missing})"
done
[ -s "$icons/scalable/apps/vantor.svg" ] || fail "no scalable icon"

for program in "$dest"/usr/bin/*; do
    page="$dest/usr/share/man/man1/$(basename "$program").1"
    if [ ! -f "$page" ]; then
        fail "no manual page for $(basename "$program")"
        continue
    fi
    # As lintian reads them: any warning of groff fails.
    warnings=$(LC_ALL=C.UTF-8 MANROFFSEQ='' MANWIDTH=80 man --warnings -E UTF-8 -l -Tutf8 -Z "$page" 2>&1 >/dev/null)
    [ -z "$warnings" ] || fail "${page#"$dest"}: $warnings"
done
exit $failed
