#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Records seeds for transaction_fuzz from velk-term's bundled scenarios: a
# stand-in kernel library (recorder.cpp) between velk-term and libvelk.so
# writes each transaction as fuzz records into OUT_DIR. Every seed is also
# written with a 'Y' record in front (key sets 0 to 3), which runs the same
# transaction with the fuzz host's test PKI signing what the card returned.
# Merge the result into the corpus:
#   build-fuzz/fuzz/transaction_fuzz -merge=1 fuzz/corpus/transaction_fuzz OUT_DIR
#   usage: fuzz/seeds/record.sh BUILD_DIR OUT_DIR   (BUILD_DIR: a build with velk-term)
set -eu
build=$(realpath "${1:?usage: fuzz/seeds/record.sh BUILD_DIR OUT_DIR}")
out=${2:?usage: fuzz/seeds/record.sh BUILD_DIR OUT_DIR}
here=$(cd "$(dirname "$0")" && pwd)
top=$(dirname "$(dirname "$here")")
mkdir -p "$out"
out=$(realpath "$out")
recorder="$build/seed_recorder.so"
"${CXX:-c++}" -std=c++20 -O1 -shared -fPIC -I"$top/fuzz" -I"$top/src/emv-kernel/src/kernel/inc" \
  "$here/recorder.cpp" -o "$recorder" -ldl
library=$(find "$build" -name 'libvelk.so.1' -print -quit)
VELK_SEED_LIB="$library" VELK_SEED_DIR="$out" "$build/src/term/velk-term" run --lib "$recorder" \
  "$top/profiles/scenarios" >/dev/null || true
for seed in "$out"/*; do
  case "$seed" in *-y?) continue ;; esac
  for set in 0 1 2 3; do
    { printf 'Y\0\1'; printf "\\x0$set"; cat "$seed"; } >"$seed-y$set"
  done
done
echo "$(ls "$out" | wc -l) seeds in $out"
