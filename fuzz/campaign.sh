#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The long campaign, outside CI: each target in turn (one fuzzer process at a
# time) for RUNS executions or SECONDS, whichever comes first, on a copy of its
# corpus; then the inputs that reach something new are merged back into
# fuzz/corpus (libFuzzer's -merge=1 keeps the fewest and smallest).
# Prints each target's executions, edges and crash inputs (kept in
# BUILD_DIR/campaign/artifacts).
#   usage: fuzz/campaign.sh BUILD_DIR [RUNS] [SECONDS] [TARGET...]
#   defaults: 10,000,000 executions or 3,600 s, every target
set -u
build=${1:?usage: fuzz/campaign.sh BUILD_DIR [RUNS] [SECONDS] [TARGET...]}
runs=${2:-10000000}
seconds=${3:-3600}
shift $(($# < 3 ? $# : 3))
targets=${*:-codec_fuzz database_fuzz tree_fuzz transaction_fuzz}
here=$(cd "$(dirname "$0")" && pwd)
work="$build/campaign"
mkdir -p "$work/artifacts"
for target in $targets; do
  binary="$build/fuzz/$target"
  rm -rf "$work/$target"
  mkdir -p "$work/$target"
  cp "$here/corpus/$target/"* "$work/$target/"
  nice -n 15 "$binary" -runs="$runs" -max_total_time="$seconds" -print_final_stats=1 \
    -artifact_prefix="$work/artifacts/$target-" "$work/$target" >"$work/$target.log" 2>&1
  nice -n 15 "$binary" -merge=1 "$here/corpus/$target" "$work/$target" >"$work/$target.merge.log" 2>&1
  echo "$target: $(grep -m1 -o 'number_of_executed_units: [0-9]*' "$work/$target.log" | cut -d' ' -f2)" \
    "executions, $(grep -o 'cov: [0-9]*' "$work/$target.log" | tail -n 1 | cut -d' ' -f2) edges," \
    "$(ls "$work/artifacts" | grep -c "^$target-") crash inputs," \
    "corpus $(ls "$here/corpus/$target" | wc -l) inputs"
done
