#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# velk-term(1), made from the program's own help: help2man reads the main
# --help and --version, and every subcommand's --help is added under
# COMMANDS, so the page always says what the program says.
#   usage: velk-term-man.sh VELK_TERM OUTPUT VERSION
set -eu
prog=$1
out=$2
version=$3
mkdir -p "$(dirname "$out")"
include=$out.include
{
  echo '[COMMANDS]'
  "$prog" --help | sed -n '/^Subcommands:/,/^$/p' | awk 'NR > 1 && NF { print $1 }' |
    while read -r command; do
      printf '.SS %s\n.nf\n' "$command"
      # roff: a backslash is written \e; a line may not begin with . or '.
      "$prog" "$command" --help | sed -e 's/\\/\\e/g' -e "s/^\\([.']\\)/\\\\\\&\\1/"
      printf '.fi\n'
    done
  printf '[SEE ALSO]\n.BR libvelk (3)\n.PP\nThe guide to velk-term: /usr/share/doc/velk-term/velk-term.md\n'
} >"$include"
help2man --no-info --section=1 --name='contactless EMV transactions through libvelk, explained' \
  --version-string="$version" --include="$include" --output="$out" "$prog"
rm -f "$include"
