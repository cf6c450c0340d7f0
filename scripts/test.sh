#!/bin/sh
# The whole test suite, as CI runs it, on a fresh Debian 12 machine as root:
# installs the Debian packages it needs, then builds and tests natively, under
# ASan+UBSan, under TSan (the threaded tests), for 32-bit ARM under qemu,
# checks the kernel with clang-tidy and cppcheck, and runs the fuzzers for a
# bounded time (FUZZ_SECONDS per target, eight targets). The packages stage makes the Debian
# packages, installs them into the system, uses them as an integrator does and
# removes them again (as root; otherwise it only builds and checks them).
#
#   ./scripts/test.sh            everything
#   ./scripts/test.sh native     one stage (native, packages, asan, tsan, armhf, lint, fuzz)
set -eu
cd "$(dirname "$0")/.."
ROOT=$(pwd)

PACKAGES="cmake ninja-build g++ gcc clang libclang-rt-14-dev pkg-config file dpkg-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev libssl-dev
  nlohmann-json3-dev libcli11-dev libpcsclite-dev pcscd vsmartcard-vpcd
  qemu-user g++-arm-linux-gnueabihf valgrind cppcheck clang-tidy"

if [ "$(id -u)" = 0 ] && [ -z "${VELK_SKIP_APT:-}" ]; then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  # shellcheck disable=SC2086
  apt-get install -y -qq --no-install-recommends $PACKAGES >/dev/null
fi

JOBS=${JOBS:-$(nproc)}
STAGES=${*:-native packages asan tsan armhf lint fuzz}
FUZZ_SECONDS=${FUZZ_SECONDS:-15}
NATIVE_FLAGS="-DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr"

SUMMARY=
LAST_CTEST=
banner() { printf '\n==== %s ====\n' "$*"; }

# Builds quietly; on failure shows the end of the log.
build() { # dir, then the targets (BUILD_TARGETS; all when empty)
  # shellcheck disable=SC2086
  if ! ninja -C "$1" -j "$JOBS" ${BUILD_TARGETS:-} >"$1/build.log" 2>&1; then
    tail -n 60 "$1/build.log"; echo "build failed in $1" >&2; exit 1
  fi
}

configure_and_test() { # name, ctest args, cmake args...
  name=$1; shift; ctest_args=$1; shift
  banner "$name: build"
  cmake -S "$ROOT" -B "$ROOT/build-$name" -G Ninja "$@" >/dev/null
  build "$ROOT/build-$name"
  banner "$name: tests"
  log=$ROOT/build-$name/ctest.log
  # shellcheck disable=SC2086
  if ! (cd "$ROOT/build-$name" && ctest --output-on-failure -j "$JOBS" $ctest_args) >"$log" 2>&1; then
    grep -v ' Passed ' "$log" | tail -n 300
    echo "tests failed in $name" >&2; exit 1
  fi
  sed -n '/tests passed/,$p' "$log"
  SUMMARY="$SUMMARY$(printf '\n%-8s %s' "$name:" "$(grep 'tests passed' "$log")")"
  [ -n "$LAST_CTEST" ] || LAST_CTEST=$log
}

# The files a package must hold, as extended regular expressions over the
# paths dpkg-deb lists (without the leading "./"); every file must match one,
# and every expression must match a file.
check_package_files() { # deb, expressions...
  deb=$1; shift
  files=$(dpkg-deb -c "$deb" | awk '$1 !~ /^d/ { print $6 }' | sed 's|^\./||')
  for expr in "$@"; do
    printf '%s\n' "$files" | grep -E -q -x "$expr" || {
      echo "FAIL: $(basename "$deb") holds no file matching $expr"; exit 1; }
  done
  for f in $files; do
    matched=
    for expr in "$@"; do
      if printf '%s\n' "$f" | grep -E -q -x "$expr"; then matched=1; break; fi
    done
    [ -n "$matched" ] || { echo "FAIL: $(basename "$deb") holds an unexpected file: $f"; exit 1; }
  done
  echo "$(basename "$deb"): $(printf '%s\n' "$files" | wc -l) files as expected"
}

packages_remove() {
  dpkg -P velk-term libvelk-dev libvelk1 >/dev/null 2>&1 || true
}

# Debian packages from the native tree: built with CPack, checked, installed
# with dpkg, used the way an integrator uses them, then removed so that the
# machine is left as it was.
packages_stage() {
  # The native stage's tree (configured for /usr) is packaged as it is, so
  # that CI builds the product once; alone, this stage configures it itself.
  dir=$ROOT/build-native
  banner "packages: build"
  # shellcheck disable=SC2086
  cmake -S "$ROOT" -B "$dir" -G Ninja $NATIVE_FLAGS >/dev/null
  build "$dir"
  rm -rf "$dir/packages"
  (cd "$dir" && cpack -G DEB >cpack.log 2>&1) || { cat "$dir/cpack.log"; exit 1; }

  banner "packages: contents"
  lib='usr/lib/[^/]+'
  doc='usr/share/doc/velk'
  check_package_files "$dir"/packages/libvelk1_*.deb "$lib/libvelk\.so\.[0-9]+" \
    "$lib/libvelk\.so\.[0-9]+\.[0-9]+\.[0-9]+"
  check_package_files "$dir"/packages/libvelk-dev_*.deb 'usr/include/velk/emv_kernel\.h' \
    'usr/include/velk/emv_kernel_global\.h' "$lib/libvelk\.a" "$lib/libvelk\.so" \
    "$lib/pkgconfig/velk\.pc" "$lib/cmake/velk/velkConfig\.cmake" \
    "$lib/cmake/velk/velkConfigVersion\.cmake" "$lib/cmake/velk/velkTargets(-[a-z]+)?\.cmake" \
    "$doc/integration\.md" "$doc/abi\.md" "$doc/examples/minimal_host\.c"
  term_deb=$(ls "$dir"/packages/velk-term_*.deb 2>/dev/null || true)
  if [ -n "$term_deb" ]; then
    check_package_files "$term_deb" 'usr/bin/velk-term' 'usr/share/velk-term/profiles/.+'
  fi
  for deb in "$dir"/packages/*.deb; do dpkg-deb -f "$deb" Package Version Depends; done

  if [ "$(id -u)" != 0 ]; then
    echo "packages: not root, so the packages were built and checked but not installed"
    return
  fi
  banner "packages: install and use"
  trap packages_remove EXIT
  # shellcheck disable=SC2086
  dpkg -i "$dir"/packages/libvelk1_*.deb "$dir"/packages/libvelk-dev_*.deb $term_deb >/dev/null
  installed=$(dpkg -L libvelk1 libvelk-dev)
  for f in /usr/include/velk/emv_kernel.h /usr/lib/*/libvelk.so.1 /usr/lib/*/pkgconfig/velk.pc; do
    printf '%s\n' "$installed" | grep -q -x "$f" || { echo "FAIL: dpkg -L lists no $f"; exit 1; }
  done
  ldconfig -p | grep -q 'libvelk\.so\.1 ' || { echo "FAIL: libvelk.so.1 unknown to ldconfig"; exit 1; }

  work=$dir/use
  rm -rf "$work" && mkdir -p "$work"
  # The C example, built against the installed package with pkg-config.
  # shellcheck disable=SC2046
  cc -std=c11 -Wall -Wextra -Werror -pedantic "$ROOT/examples/minimal_host.c" \
    $(pkg-config --cflags --libs velk) -o "$work/minimal_host"
  ldd "$work/minimal_host" | grep -E -q 'libvelk\.so\.1 => (/usr)?/lib/' ||
    { echo "FAIL: the example does not load the installed libvelk.so.1"; exit 1; }
  # It must run to an end (approved once the kernel's steps are all in).
  rc=0; "$work/minimal_host" >"$work/minimal_host.out" 2>&1 || rc=$?
  tail -n 3 "$work/minimal_host.out"
  [ "$rc" -lt 128 ] || { echo "FAIL: the example died (status $rc)"; exit 1; }
  # The CMake package of the installed system.
  cmake -S "$ROOT/tests/consumer" -B "$work/consumer" -G Ninja -DEXPECTED_PREFIX=/usr >/dev/null
  build "$work/consumer"
  "$work/consumer/consumer_shared" && "$work/consumer/consumer_static"

  if [ -n "$term_deb" ]; then
    # The installed scenarios that need no more than the first tap, copied
    # elsewhere: they name their card and terminal as bundled profiles, which
    # the installed velk-term finds beside itself (share/velk-term/profiles)
    # and the installed library in its lib directory.
    scenarios=$(grep -L '"needs"' /usr/share/velk-term/profiles/scenarios/*.json || true)
    [ -n "$scenarios" ] || { echo "FAIL: velk-term is packaged without a scenario"; exit 1; }
    mkdir -p "$work/scenarios"
    # shellcheck disable=SC2086
    cp $scenarios "$work/scenarios/"
    (cd "$work" && velk-term run scenarios)
  fi

  banner "packages: remove"
  packages_remove
  trap - EXIT
  if dpkg -s libvelk1 >/dev/null 2>&1 || [ -e /usr/include/velk ]; then
    echo "FAIL: the packages were not removed cleanly"; exit 1
  fi
}

for stage in $STAGES; do
  case $stage in
    native)
      # shellcheck disable=SC2086
      configure_and_test native "" $NATIVE_FLAGS ;;
    packages)
      packages_stage ;;
    asan)
      # The kernel with its unit, transaction and thread tests (the portable
      # platform stands in for the host framework, which the native stage
      # tests); VELK_ASAN_HOST=1 adds the host side and velk-term.
      configure_and_test asan "" -DCMAKE_BUILD_TYPE=Debug -DVELK_SANITIZE=address,undefined \
        -DVELK_BUILD_HOST="$([ -n "${VELK_ASAN_HOST:-}" ] && echo ON || echo OFF)" ;;
    tsan)
      # Only the kernel and its own tests: the threaded ones run here.
      BUILD_TARGETS=velk_thread_tests
      configure_and_test tsan "-L threads" -DCMAKE_BUILD_TYPE=Debug -DVELK_SANITIZE=thread \
        -DVELK_BUILD_HOST=OFF
      BUILD_TARGETS= ;;
    armhf)
      configure_and_test armhf "" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/toolchain-armhf.cmake" -DVELK_BUILD_HOST=OFF ;;
    lint)
      # The kernel only: clang-tidy (.clang-tidy) on the compile database of a
      # clang configuration, and cppcheck. Findings are fixed or suppressed
      # inline with the reason.
      banner "lint: clang-tidy and cppcheck over src/emv-kernel"
      CC=clang CXX=clang++ cmake -S "$ROOT" -B "$ROOT/build-lint" -G Ninja \
        -DVELK_BUILD_TESTS=OFF -DVELK_BUILD_HOST=OFF >/dev/null
      find "$ROOT/src/emv-kernel" -name '*.cpp' | sort |
        xargs -P "$JOBS" -n 4 clang-tidy -p "$ROOT/build-lint" --quiet 2>/dev/null
      cppcheck --quiet --enable=warning,performance,portability --inline-suppr \
        --error-exitcode=1 --std=c++20 --language=c++ -j "$JOBS" \
        -I "$ROOT/src/emv-kernel/src/kernel/inc" -I "$ROOT/src/emv-kernel/src/common/inc" \
        -I "$ROOT/src/emv-kernel/src/velk/inc" "$ROOT/src/emv-kernel"
      echo "lint: clean" ;;
    fuzz)
      if [ -x "$ROOT/fuzz/run.sh" ]; then
        banner "fuzz: build"
        CC=clang CXX=clang++ cmake -S "$ROOT" -B "$ROOT/build-fuzz" -G Ninja \
          -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELK_BUILD_FUZZERS=ON -DVELK_BUILD_TESTS=OFF >/dev/null
        build "$ROOT/build-fuzz"
        banner "fuzz: ${FUZZ_SECONDS}s per target"
        "$ROOT/fuzz/run.sh" "$ROOT/build-fuzz" "$FUZZ_SECONDS"
      fi ;;
    *) echo "unknown stage: $stage" >&2; exit 2 ;;
  esac
done
banner "all stages passed: $STAGES"
printf '%s\n' "${SUMMARY#?}"
# The test runner's closing lines of the first test stage (native), as the last output.
if [ -n "$LAST_CTEST" ]; then echo; sed -n '/tests passed/,$p' "$LAST_CTEST"; fi
