#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Installs a build tree into a temporary prefix, moves the installed tree
# elsewhere (the packages must be relocatable), and builds and runs the tiny
# consumer against it: with pkg-config, and with find_package(velk CONFIG),
# linked to the shared and to the static library.
#
#   check_install.sh BUILD_DIR CONSUMER_SRC_DIR CMAKE C_COMPILER GENERATOR PKG_CONFIG VERSION
set -eu
build=$1 src=$2 cmake=$3 cc=$4 generator=$5 pkgconfig=$6 version=$7

work=$(mktemp -d "${TMPDIR:-/tmp}/velk-consumer.XXXXXX")
trap 'rm -rf "$work"' EXIT INT TERM
fail() { echo "FAIL: $*" >&2; exit 1; }

echo "== install into $work/staged, then move it to $work/moved"
"$cmake" --install "$build" --prefix "$work/staged" >"$work/install.log" || {
  cat "$work/install.log"; fail "cmake --install"; }
mv "$work/staged" "$work/moved"
prefix=$work/moved

# What an integrator gets, and nothing of the kernel's inside.
for f in include/velk/emv_kernel.h include/velk/emv_kernel_global.h; do
  [ -f "$prefix/$f" ] || fail "$f not installed"
done
libdir=$(dirname "$(find "$prefix" -name libvelk.a | head -n 1)")
if [ -z "$libdir" ] || [ ! -f "$libdir/libvelk.a" ]; then fail "libvelk.a not installed"; fi
if [ ! -f "$libdir/libvelk.so.$version" ] || [ -L "$libdir/libvelk.so.$version" ]; then
  fail "libvelk.so.$version is not the library file"
fi
for link in "libvelk.so.${version%%.*}" libvelk.so; do
  [ -L "$libdir/$link" ] || fail "$link is not a symbolic link"
done
internal=$(find "$prefix/include" -name '*.h*' ! -name emv_kernel.h ! -name emv_kernel_global.h)
[ -z "$internal" ] || fail "internal headers installed: $internal"

echo "== pkg-config"
pcdir=$libdir/pkgconfig
[ -f "$pcdir/velk.pc" ] || fail "velk.pc not installed in $pcdir"
pc() { PKG_CONFIG_LIBDIR=$pcdir PKG_CONFIG_PATH='' "$pkgconfig" "$@" velk; }
[ "$(pc --modversion)" = "$version" ] || fail "pkg-config version $(pc --modversion), not $version"
real_prefix=$(cd "$prefix" && pwd -P)
case $(cd "$(pc --variable=includedir)" && pwd -P) in
  "$real_prefix"/*) ;;
  *) fail "pkg-config includedir $(pc --variable=includedir) is not in the moved tree" ;;
esac
# shellcheck disable=SC2046
"$cc" -std=c11 -Wall -Wextra -Werror -pedantic "$src/consumer.c" $(pc --cflags) $(pc --libs) \
  -Wl,-rpath,"$(pc --variable=libdir)" -o "$work/consumer_pc"
"$work/consumer_pc"

echo "== find_package(velk CONFIG)"
"$cmake" -S "$src" -B "$work/build" -G "$generator" -DCMAKE_C_COMPILER="$cc" \
  -DCMAKE_PREFIX_PATH="$prefix" -DEXPECTED_PREFIX="$prefix" >"$work/configure.log" 2>&1 || {
  cat "$work/configure.log"; fail "configuring the consumer"; }
grep 'velk .* from' "$work/configure.log"
"$cmake" --build "$work/build" >"$work/build.log" 2>&1 || { cat "$work/build.log"; fail "building the consumer"; }
"$work/build/consumer_shared"
"$work/build/consumer_static"
# The static consumer carries the kernel: no libvelk.so among its needs.
if readelf -d "$work/build/consumer_static" | grep -q 'NEEDED.*libvelk'; then
  fail "consumer_static needs libvelk.so"
fi
echo "OK"
