#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs the velk-term command lines of a cases file: velk-term run_cases.py
VELK_TERM CASES GROUP. Each row of the group [GROUP] reads
    ARGUMENTS | EXIT STATUS | TEXT
and passes when velk-term, started with ARGUMENTS in the folder of the cases
file, exits with EXIT STATUS and prints TEXT (on stdout or stderr; TEXT may
be empty; \\n in it stands for a line break). Lines starting with # are
comments."""
import os
import shlex
import subprocess
import sys


def rows(path, group):
    current = None
    for number, line in enumerate(open(path, encoding="utf-8"), 1):
        line = line.strip()
        if not line or line.startswith("#"):
            continue
        if line.startswith("[") and line.endswith("]"):
            current = line[1:-1]
        elif current == group:
            fields = [f.strip() for f in line.split("|")]
            if len(fields) != 3:
                sys.exit(f"{path}:{number}: expected ARGUMENTS | EXIT STATUS | TEXT")
            fields[2] = fields[2].replace("\\n", "\n")
            yield number, fields


def main():
    if len(sys.argv) != 4:
        sys.exit("usage: run_cases.py VELK_TERM CASES GROUP")
    velk_term, cases, group = sys.argv[1:]
    failed = ran = 0
    for number, (args, status, text) in rows(cases, group):
        ran += 1
        run = subprocess.run([velk_term] + shlex.split(args), cwd=os.path.dirname(cases),
                             capture_output=True, text=True, timeout=120)
        output = run.stdout + run.stderr
        if run.returncode != int(status) or text not in output:
            failed += 1
            print(f"{cases}:{number}: velk-term {args}\n  expected exit {status} and "
                  f"{text!r}\n  got exit {run.returncode}:\n{output}")
    if ran == 0:
        sys.exit(f"{cases}: no rows in group [{group}]")
    print(f"[{group}] {ran - failed} of {ran} passed")
    sys.exit(1 if failed else 0)


main()
