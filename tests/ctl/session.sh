#!/bin/sh
# session.sh <vantorctl> <pane> <folder>: one user's session: on, add, "list --json" at 100 and
# the helper idle, off.
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
# As a script would: "on" returns once the helper listens.
ctl on && ctl add "$folder" && waitFor list '"status": 100' && waitFor status '"state": "idle"'
result=$?
ctl list --json
ctl off && waitFor status '"helperRunning": false'
exit $result
