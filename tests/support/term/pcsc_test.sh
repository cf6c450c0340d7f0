#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# A transaction through PC/SC: velk-term serves a bundled virtual card to
# pcscd's vpcd reader driver, and a second velk-term pays with the card on
# that reader, as it would with a real card on a real reader.
#
# Starts pcscd in the foreground (with --auto-exit) when none answers, and
# stops exactly the processes it started. Exit 77 tells ctest the test was
# skipped: pcscd cannot be started here or has no vpcd reader.
#
# usage: pcsc_test.sh VELK_TERM LIBVELK
set -u

velk_term=$1
lib=$2
reader="Virtual PCD 00 00"
card=offline-cda
work=$(mktemp -d)
pcscd_pid=
serve_pid=

cleanup() {
    if [ -n "$serve_pid" ]; then kill "$serve_pid" 2>/dev/null; wait "$serve_pid" 2>/dev/null; fi
    if [ -n "$pcscd_pid" ]; then kill "$pcscd_pid" 2>/dev/null; wait "$pcscd_pid" 2>/dev/null; fi
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

skip() {
    echo "SKIPPED: $*"
    exit 77
}

fail() {
    echo "FAILED: $*"
    for f in "$work"/*.log "$work"/*.txt; do
        [ -f "$f" ] && { echo "--- $f"; cat "$f"; }
    done
    exit 1
}

# Waits up to $1 tenths of a second for the command after it to succeed.
wait_for() {
    n=$1
    shift
    while [ "$n" -gt 0 ]; do
        "$@" >/dev/null 2>&1 && return 0
        sleep 0.1
        n=$((n - 1))
    done
    return 1
}

has_reader() {
    "$velk_term" readers > "$work/readers.txt" 2>&1 && grep -q "^$reader" "$work/readers.txt"
}

card_present() {
    "$velk_term" readers 2>/dev/null | grep -q "^$reader  (card present)"
}

if ! "$velk_term" readers >/dev/null 2>&1; then
    command -v pcscd >/dev/null 2>&1 || PATH=$PATH:/usr/sbin
    command -v pcscd >/dev/null 2>&1 || skip "pcscd is not installed"
    pcscd --foreground --auto-exit > "$work/pcscd.log" 2>&1 &
    pcscd_pid=$!
    wait_for 50 has_reader || {
        cat "$work/pcscd.log"
        skip "pcscd did not start with a \"$reader\" reader (not root, or no vpcd driver)"
    }
fi
has_reader || skip "pcscd runs without the vpcd driver (no \"$reader\" reader)"

"$velk_term" serve-vpcd --card "$card" --wait 10 > "$work/serve.log" 2>&1 &
serve_pid=$!
wait_for 100 card_present || fail "the virtual card did not appear on \"$reader\""

status=0
"$velk_term" --reader "$reader" --lib "$lib" --seed 1 --date 250615 --time 120000 --json \
    > "$work/pay.txt" 2>&1 || status=$?
[ "$status" -eq 0 ] || fail "velk-term exited with $status"
grep -q '"aid": "F056454C4B1010"' "$work/pay.txt" || fail "the application was not selected through PC/SC"
grep -q '"host_errors": \[\]' "$work/pay.txt" || fail "the host reported errors"
grep -q '"faults_fired": \[\]' "$work/pay.txt" || fail "unexpected faults"
# The offline CDA card approves 25.00 offline, through the reader as in the
# field of the virtual one.
grep -q '"result": "APPROVED"' "$work/pay.txt" || fail "the card on the reader was not approved"
echo "PASSED: $card approved through pcscd and \"$reader\""
