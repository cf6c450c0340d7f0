#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs every fuzz target for SECONDS on a temporary copy of its committed
# corpus (the repository is never written); crash inputs go to
# BUILD_DIR/fuzz-artifacts. An input that runs longer than 60 s counts as a
# crash (a hang), as does one that takes more than 2 GB. Exits non-zero when
# any target crashed.
#   usage: fuzz/run.sh BUILD_DIR SECONDS
set -u
build=${1:?usage: fuzz/run.sh BUILD_DIR SECONDS}
seconds=${2:?usage: fuzz/run.sh BUILD_DIR SECONDS}
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
artifacts="$build/fuzz-artifacts"
mkdir -p "$artifacts"
status=0
for target in codec_fuzz database_fuzz tree_fuzz transaction_fuzz \
    profile_fuzz scenario_fuzz vpcd_fuzz decode_fuzz; do
  binary="$build/fuzz/$target"
  if [ ! -x "$binary" ]; then
    echo "$target: not built in $build" >&2
    status=1
    continue
  fi
  mkdir -p "$work/$target"
  cp "$here/corpus/$target/"* "$work/$target/" 2>/dev/null || true
  echo "== $target: ${seconds}s"
  if ! "$binary" -max_total_time="$seconds" -timeout=60 -rss_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix="$artifacts/$target-" "$work/$target" 2>"$work/$target.log"; then
    tail -n 60 "$work/$target.log" >&2
    echo "$target: FAILED (inputs in $artifacts)" >&2
    status=1
  else
    grep -E '^stat::(number_of_executed_units|peak_rss_mb)' "$work/$target.log" || true
    echo "corpus: $(ls "$work/$target" | wc -l) inputs"
  fi
done
exit $status
