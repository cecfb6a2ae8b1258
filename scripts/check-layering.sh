#!/usr/bin/env bash
# Fails when a folder of src/ includes a header of a folder it may not use. Every include of
# our own headers names its folder ("common/HistoryStore.h"), so the graph is read from the
# sources alone. Lower libraries come first; programs may use the libraries, never each other.
set -euo pipefail
cd "$(dirname "$0")/.."

declare -A allowed=(
    [platform]="platform"
    [common]="common platform"
    [gui]="gui common platform"
    [prefpane]="prefpane gui common platform"
    [host]="host gui common platform"
    [btrfs]="btrfs common platform"
    [helper]="helper btrfs common platform"
    [loginitems]="loginitems common platform"
    [relaunch]="relaunch platform"
    [ctl]="ctl btrfs common platform"
)

status=0
for dir in src/*/; do
    folder=$(basename "$dir")
    if [ -z "${allowed[$folder]+set}" ]; then
        echo "src/$folder: no layer assigned in scripts/check-layering.sh" >&2
        status=1
        continue
    fi
    while IFS=: read -r file line include; do
        target=${include%%/*}
        # An include without a folder is a generated file (ui_*.h) or the folder's own header.
        if [ "$target" = "$include" ]; then
            if [ -e "src/$folder/$include" ] || [[ "$include" == ui_* ]] || [[ "$include" == *.moc ]]; then
                continue
            fi
            echo "$file:$line: \"$include\" does not name its folder" >&2
            status=1
            continue
        fi
        if [[ " ${allowed[$folder]} " != *" $target "* ]]; then
            echo "$file:$line: src/$folder may not include \"$include\" (allowed: ${allowed[$folder]})" >&2
            status=1
        fi
    done < <(grep -rnoE '^\s*#\s*include\s+"[^"]+"' "$dir" | sed -E 's/^([^:]+):([0-9]+):.*"([^"]+)"/\1:\2:\3/')
done
[ "$status" -eq 0 ] && echo "layering: every include of src/ stays within its allowed libraries"
exit "$status"
