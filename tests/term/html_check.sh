#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The HTML reports of runs (the bundled scenarios; a pass, a failure and an
# error) and of one transaction in headless Chromium:
# rendered to the end (the page's last step marks it) without a script error
# (the page's window.onerror marks one), the table with a row per scenario.
# The run's screenshot stays in WORK for CI to keep.
# shellcheck source=tests/term/common.sh
. "$(dirname "$0")/common.sh"
need python3
CHROMIUM=$(command -v chromium || command -v chromium-browser || true)
[ -n "$CHROMIUM" ] || { echo "chromium is not installed: skipped"; exit 77; }

chromium() { # what to do, then the page
  timeout 120 "$CHROMIUM" --headless --no-sandbox --disable-gpu --disable-dev-shm-usage \
    --hide-scrollbars --user-data-dir="$WORK/chromium" "$@" 2>>"$WORK/chromium.log"
}

check() { # page, rows expected
  chromium --dump-dom "file://$1" >"$1.dom" || fail "$1: chromium exited with $?"
  grep -q 'id="script-error"' "$1.dom" &&
    fail "$1: $(sed -n 's/.*data-script-error="\([^"]*\)".*/\1/p' "$1.dom")"
  grep -q 'id="report-ready"' "$1.dom" || fail "$1: the page's script did not finish"
  rows=$(grep -o '<tr class="scenario-row" data-verdict="[A-Z]*" data-target="s[0-9]*"' "$1.dom" |
    wc -l)
  [ "$rows" -eq "$2" ] || fail "$1: $rows rows in the table, expected $2"
  echo "$1: $rows row(s), no script error"
}

run "$SCENARIOS" --html "$WORK/run.html" --json >"$WORK/run.json" 2>/dev/null
check "$WORK/run.html" "$(python3 -c 'import json,sys; print(len(json.load(open(sys.argv[1]))["scenarios"]))' "$WORK/run.json")"

mixed_folder "$WORK/mixed"
run "$WORK/mixed" --html "$WORK/mixed.html" >/dev/null 2>&1
check "$WORK/mixed.html" 3

"$VELK_TERM" pay --lib "$LIB" --card online-cda --seed 1 --date 250615 --time 120000 \
  --html "$WORK/pay.html" >/dev/null || fail "velk-term pay exited with $?"
check "$WORK/pay.html" 1

chromium --screenshot="$WORK/report.png" --window-size=1280,2000 "file://$WORK/run.html" ||
  fail "no screenshot"
[ -s "$WORK/report.png" ] || fail "no screenshot"
echo "screenshot: $WORK/report.png"
