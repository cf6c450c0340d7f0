#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The versioned ABI of libvelk.so (docs/abi.md): the library file is
# libvelk.so.VERSION; its SONAME is libvelk.so.MAJOR; the version script's node
# is VELK_MAJOR and the library defines it (later nodes of the same major
# version, VELK_MAJOR.MINOR, may follow); every function the node lists is
# exported with that node as its default version.
#
#   check_version.sh LIBRARY VERSION VERSION_SCRIPT
set -eu
lib=$1 version=$2 map=$3
major=${version%%.*}
node=VELK_$major
fail() { echo "FAIL: $*"; exit 1; }

[ "$(basename "$lib")" = "libvelk.so.$version" ] || fail "library file $(basename "$lib"), expected libvelk.so.$version"

soname=$(readelf -d "$lib" | sed -n 's/.*(SONAME).*\[\(.*\)\]$/\1/p')
echo "SONAME: $soname"
[ "$soname" = "libvelk.so.$major" ] || fail "SONAME $soname does not match major version $major"

nodes=$(readelf -V "$lib" | sed -n '/\.gnu\.version_d/,/^$/p' | grep -v 'Flags: BASE' |
  sed -n 's/.*Name: \([^ ]*\)$/\1/p')
echo "version nodes: $nodes"
printf '%s\n' "$nodes" | grep -qx "$node" || fail "the library does not define $node"
for n in $nodes; do
  case $n in "$node" | "$node".*) ;; *) fail "version node $n does not belong to major version $major" ;; esac
done

# The functions of the node, as the version script lists them.
functions=$(sed -n "/^${node}[[:space:]]*{/,/}/p" "$map" | sed -n '/global:/,/local:/p' |
  sed -n 's/^[[:space:]]*\([A-Za-z_][A-Za-z0-9_]*\);.*/\1/p')
[ -n "$functions" ] || fail "the version script has no global functions in $node"
symbols=$(readelf --dyn-syms -W "$lib")
for f in $functions; do
  printf '%s\n' "$symbols" | grep -q "[[:space:]]$f@@$node\$" || fail "$f is not exported as $f@@$node"
  echo "  $f@@$node"
done
echo "OK"
