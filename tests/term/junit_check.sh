#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The JUnit report of a run: well-formed, in Ant's shape (junit.xsd), and its
# counts those of the run's own summary, over the bundled scenarios and over
# a folder with one scenario of each kind (pass, fail, error).
# shellcheck source=tests/term/common.sh
. "$(dirname "$0")/common.sh"
need xmllint python3
XSD=$(dirname "$0")/junit.xsd

# Each count of the report against the run's summary (run --json).
check() { # folder, name
  run "$1" --junit "$WORK/$2.xml" --json >"$WORK/$2.json" 2>/dev/null
  xmllint --noout --schema "$XSD" "$WORK/$2.xml" 2>&1 | grep -v ' validates$' && fail "$2: not in the shape"
  x() { xmllint --xpath "$1" "$WORK/$2.xml"; }
  got="$(x 'string(/testsuites/@tests)' "$2") $(x 'string(/testsuites/@failures)' "$2")"
  got="$got $(x 'string(/testsuites/@errors)' "$2") $(x 'count(//testcase)' "$2")"
  got="$got $(x 'count(//testcase/failure)' "$2") $(x 'count(//testcase/error)' "$2")"
  want=$(python3 -c '
import json, sys
s = json.load(open(sys.argv[1]))["summary"]
errors = s["errors"] + s["crashed"] + s["timed_out"]
print(s["scenarios"], s["failed"], errors, s["scenarios"], s["failed"], errors)' "$WORK/$2.json")
  [ "$got" = "$want" ] || fail "$2: the report counts $got, the run $want"
  echo "$2: $got"
}

check "$SCENARIOS" bundled

MIXED=$WORK/mixed && mixed_folder "$MIXED"
check "$MIXED" mixed
[ "$(xmllint --xpath 'string(//testcase[@name="b-fail"]/failure)' "$WORK/mixed.xml")" != "" ] ||
  fail "mixed: the failure does not carry the mismatch"
