#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# libvelk.so may import only memset, strlen, vsnprintf, raise and the host's
# pemv_kn_glb, plus the loader's weak boilerplate.
set -eu
lib=$1
undef=$(readelf --dyn-syms -W "$lib" | awk '$7 == "UND" && $8 != "" { sub(/@.*/, "", $8); print $8 }' | sort -u)
extra=$(printf '%s\n' "$undef" | grep -v -x -E 'memset|strlen|vsnprintf|raise|pemv_kn_glb|__cxa_finalize|_ITM_(de)?registerTMCloneTable|__gmon_start__' || true)
echo "imports of $(basename "$lib"):"; printf '  %s\n' $undef
if [ -n "$extra" ]; then
  echo "FAIL: unexpected imports:"; printf '  %s\n' $extra
  exit 1
fi
printf '%s\n' "$undef" | grep -q -x pemv_kn_glb || { echo "FAIL: pemv_kn_glb is not imported"; exit 1; }
echo "OK"
