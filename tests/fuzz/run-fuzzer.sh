#!/bin/sh
# run-fuzzer.sh FUZZER CORPUS WORKDIR SECONDS [libFuzzer options...]
# New inputs and any crashing input go to WORKDIR: the kept CORPUS changes only by hand.
set -eu
fuzzer=$1 corpus=$2 work=$3 seconds=$4
shift 4
mkdir -p "$work/new" "$work/artifacts"
exec "$fuzzer" -max_total_time="$seconds" -timeout=30 -rss_limit_mb=4096 -print_final_stats=1 \
    -artifact_prefix="$work/artifacts/" "$@" "$work/new" "$corpus"
