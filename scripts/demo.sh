#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# One whole contactless transaction through libvelk, explained: on a fresh
# Debian 12 machine as root it installs the few Debian packages the build
# needs, builds the library and velk-term (Release, in build-demo/), and pays
# 25.00 EUR with the bundled online CDA card. The first tap ends in an Online
# Request (long tap), the simulated issuer approves, and the second entry of
# the kernel completes the transaction with the card still in the field.
#
#   ./scripts/demo.sh                 the demo
#   ./scripts/demo.sh --trace         the same with every APDU and callback
#
# Arguments are handed to `velk-term pay`. apt-get is skipped when not root
# or when VELK_SKIP_APT is set. Exit status: 0 when the transaction was
# approved on the second entry, else velk-term's own or 1.
set -eu
cd "$(dirname "$0")/.."
ROOT=$(pwd)
DIR=$ROOT/build-demo

PACKAGES="cmake ninja-build g++ libssl-dev nlohmann-json3-dev libcli11-dev libpcsclite-dev libpcap-dev pkg-config"

if [ "$(id -u)" = 0 ] && [ -z "${VELK_SKIP_APT:-}" ]; then
  echo "Installing: $PACKAGES"
  export DEBIAN_FRONTEND=noninteractive
  # A mirror in the middle of a sync can fail one list (the armhf lists the
  # test suite adds, say); the install then goes on with what it has and
  # fails only if a package is really missing.
  apt-get update -qq || echo "apt-get update: some package lists failed, going on" >&2
  # shellcheck disable=SC2086
  apt-get install -y -qq --no-install-recommends $PACKAGES >/dev/null
fi

echo "Building libvelk and velk-term (Release) in build-demo/"
cmake -S "$ROOT" -B "$DIR" -G Ninja -DCMAKE_BUILD_TYPE=Release -DVELK_BUILD_TESTS=OFF >/dev/null
if ! ninja -C "$DIR" -j "${JOBS:-$(nproc)}" velk-term >"$DIR/build.log" 2>&1; then
  tail -n 40 "$DIR/build.log"
  echo "demo: the build failed (whole log: $DIR/build.log)" >&2
  exit 1
fi

# Fixed date, time and seed: the same cryptograms on every run.
report=$DIR/demo-report.txt
echo
echo "velk-term pay --card online-cda --terminal pos --amount 25.00 --issuer approve"
echo
rc=0
"$DIR/src/term/velk-term" pay --card online-cda --terminal pos --amount 25.00 --issuer approve \
  --date 250615 --time 120000 --seed 1 --lib "$DIR/src/demo/linux/libvelk.so.1" "$@" \
  >"$report" || rc=$?
cat "$report"
[ "$rc" = 0 ] || exit "$rc"

if grep -q '^Entry 2:' "$report" && grep -q '^Result: APPROVED' "$report"; then
  echo
  echo "demo: approved online on the second entry."
else
  echo
  echo "demo: the transaction did not complete with an online approval on the second entry" >&2
  exit 1
fi
