#!/bin/sh
# session.sh <vantorctl> <pane> <folder>: one user's session on a bus of its own. Switches
# the helper on, adds the folder, prints "list --json" once the folder is at 100, then
# switches the helper off again.
vantorctl=$1 pane=$2 folder=$3
ctl() { "$vantorctl" --pane "$pane" "$@"; }
waitFor() {
    for _ in $(seq 600); do
        ctl "$1" --json 2>/dev/null | grep -q "$2" && return 0
        sleep 0.1
    done
    echo "session.sh: no $2 in vantorctl $1" >&2
    return 1
}
ctl on && waitFor status '"helperRunning": true' && ctl add "$folder" && waitFor list '"status": 100'
result=$?
ctl list --json
ctl off && waitFor status '"helperRunning": false'
exit $result
