#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# libvelk.so exports exactly the six entry functions, in version VELK_1, and
# carries a versioned SONAME.
set -eu
lib=$1
expected='Kernel_Customized_Contactless_VELK_
Kernel_Init_VELK_
Kernel_Set_Local_Param_Pointer_VELK_
Kernel_Set_Proprietary_Tag_VELK_
Kernel_Start_VELK_
Kernel_load_callback_Routine_VELK_'
defined=$(readelf --dyn-syms -W "$lib" | awk '$7 != "UND" && $7 != "ABS" && ($5 == "GLOBAL" || $5 == "WEAK") && $8 != "" { print $8 }' | sort -u)
names=$(printf '%s\n' "$defined" | sed 's/@.*//' | sort -u)
echo "exports of $(basename "$lib"):"; printf '  %s\n' $defined
if [ "$names" != "$expected" ]; then
  echo "FAIL: the export list differs from the six entry functions"; exit 1
fi
if printf '%s\n' "$defined" | grep -v -q '@@VELK_1$'; then
  echo "FAIL: an export is not in version VELK_1"; exit 1
fi
readelf -d "$lib" | grep -q 'SONAME.*libvelk\.so\.1\]' || { echo "FAIL: SONAME is not libvelk.so.1"; exit 1; }
echo "OK"
