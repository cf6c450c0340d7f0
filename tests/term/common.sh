# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=sh
# Shared by the checks of velk-term's outputs: arguments, the tool check
# (exit 77: skipped) and a scratch folder in the build tree.
#   VELK_TERM LIB SCENARIOS WORK
set -eu
VELK_TERM=$1 LIB=$2 SCENARIOS=$3 WORK=$4
rm -rf "$WORK" && mkdir -p "$WORK"

need() {
  for tool in "$@"; do
    command -v "$tool" >/dev/null 2>&1 || { echo "$tool is not installed: skipped"; exit 77; }
  done
}

# velk-term run with the given options; 1 (a scenario failed) is a result.
run() {
  rc=0
  "$VELK_TERM" run --lib "$LIB" "$@" || rc=$?
  [ "$rc" -le 1 ] || { echo "velk-term run $* exited with $rc" >&2; exit 1; }
}

fail() { echo "FAILED: $*" >&2; exit 1; }

# A folder of three scenarios: one that passes, one that fails (an
# expectation changed), one that cannot be loaded.
mixed_folder() { # folder
  mkdir -p "$1"
  cp "$SCENARIOS/03-offline-approved.json" "$1/a-pass.json"
  python3 - "$SCENARIOS/03-offline-approved.json" "$1/b-fail.json" <<'PY'
import json, sys
s = json.load(open(sys.argv[1]))
s["expect"]["outcome"] = "DECLINED"
json.dump(s, open(sys.argv[2], "w"))
PY
  echo '{"name": "broken", "card": "no-such-card"}' >"$1/c-error.json"
}
