#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The kernel's line coverage reached by the committed corpus alone: builds the
# fuzz targets with clang's source-based coverage in BUILD_DIR, runs each once
# over its corpus (no fuzzing) and prints llvm-cov's report for src/emv-kernel.
#   usage: fuzz/coverage.sh BUILD_DIR [TARGET...]
set -eu
build=${1:?usage: fuzz/coverage.sh BUILD_DIR [TARGET...]}
shift
targets=${*:-codec_fuzz database_fuzz tree_fuzz transaction_fuzz}
here=$(cd "$(dirname "$0")" && pwd)
top=$(dirname "$here")
flags="-fprofile-instr-generate -fcoverage-mapping"
CC=clang CXX=clang++ cmake -S "$top" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DVELK_BUILD_FUZZERS=ON -DVELK_BUILD_TESTS=OFF \
  -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" >/dev/null
# shellcheck disable=SC2086
nice -n 10 ninja -C "$build" -j2 $targets >/dev/null
profiles="$build/coverage"
rm -rf "$profiles"
mkdir -p "$profiles"
objects=()
for target in $targets; do
  LLVM_PROFILE_FILE="$profiles/$target.profraw" \
    "$build/fuzz/$target" -runs=0 "$here/corpus/$target" >"$profiles/$target.log" 2>&1
  objects+=("${objects:+-object=}$build/fuzz/$target")
done
llvm-profdata-14 merge -sparse "$profiles"/*.profraw -o "$profiles/corpus.profdata"
llvm-cov-14 report "${objects[@]}" -instr-profile="$profiles/corpus.profdata" "$top/src/emv-kernel"
