#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The whole test suite, as CI runs it, on a fresh Debian 12 machine as root:
# installs the Debian packages it needs, then builds and tests natively, under
# ASan+UBSan, under TSan (the threaded tests), for 32-bit ARM under qemu,
# checks the kernel with clang-tidy and cppcheck, and runs the fuzzers for a
# bounded time (FUZZ_SECONDS per target). The packages stage makes the Debian
# packages with dpkg-buildpackage (amd64, and armhf cross-built), checks them
# with lintian, installs them into the system, uses them as an integrator does
# (the armhf example under qemu-user) and removes them again (as root;
# otherwise it only builds and checks them).
#
#   ./scripts/test.sh            everything
#   ./scripts/test.sh native     one stage (native, packages, asan, tsan, armhf, lint, fuzz)
set -eu
cd "$(dirname "$0")/.."
ROOT=$(pwd)

PACKAGES="cmake ninja-build g++ gcc clang libclang-rt-14-dev pkg-config file dpkg-dev
  debhelper lintian help2man man-db crossbuild-essential-armhf
  googletest libgtest-dev libgmock-dev libbenchmark-dev libssl-dev
  nlohmann-json3-dev libcli11-dev libpcsclite-dev pcscd vsmartcard-vpcd
  libpcap-dev qemu-user g++-arm-linux-gnueabihf valgrind cppcheck clang-tidy
  tshark libxml2-utils chromium"
PACKAGES_ARMHF="libc6:armhf"

if [ "$(id -u)" = 0 ] && [ -z "${VELK_SKIP_APT:-}" ]; then
  export DEBIAN_FRONTEND=noninteractive
  # armhf libraries (multiarch) for the cross-built packages and tests.
  dpkg --add-architecture armhf
  # A mirror in the middle of a sync can fail one list; the install then
  # goes on with what it has and fails only if a package is really missing.
  apt-get update -qq || echo "apt-get update: some package lists failed, going on" >&2
  # shellcheck disable=SC2086
  apt-get install -y -qq --no-install-recommends $PACKAGES $PACKAGES_ARMHF >/dev/null
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
  dpkg -P velk-term libvelk-dev:armhf libvelk1:armhf libvelk-dev:amd64 libvelk1:amd64 >/dev/null 2>&1 || true
}

# Debian packages made the Debian way (dpkg-buildpackage over debian/, with
# debhelper's cmake build system) from a copy of the source: amd64 with
# velk-term, armhf cross-built without the host side (build profile
# pkg.velk.nohost). lintian must find nothing that debian/*.lintian-overrides
# does not explain; then the packages are installed with dpkg, used the way
# an integrator uses them (the armhf example host under qemu-user) and removed,
# so that the machine is left as it was.
packages_stage() {
  dir=$ROOT/build-packages
  banner "packages: build (dpkg-buildpackage: amd64, armhf)"
  version=$(sed -n 's/^project(velk VERSION \([0-9.]*\).*/\1/p' "$ROOT/CMakeLists.txt")
  [ "$(dpkg-parsechangelog -l "$ROOT/debian/changelog" -S Version)" = "$version" ] ||
    { echo "FAIL: debian/changelog does not start at the project version $version"; exit 1; }
  rm -rf "$dir" && mkdir -p "$dir/src"
  (cd "$ROOT" && git ls-files -z -c -o --exclude-standard |
    tar --null --ignore-failed-read -T - -cf - 2>/dev/null) | tar -xf - -C "$dir/src"
  for arch in amd64 armhf; do
    args=
    [ "$arch" = amd64 ] || args="-a $arch -Ppkg.velk.nohost"
    # shellcheck disable=SC2086
    (cd "$dir/src" && dpkg-buildpackage -us -uc -b -j"$JOBS" $args) >"$dir/build-$arch.log" 2>&1 ||
      { tail -n 60 "$dir/build-$arch.log"; echo "FAIL: dpkg-buildpackage ($arch)"; exit 1; }
  done

  banner "packages: lintian"
  for changes in "$dir"/*.changes; do
    lintian --fail-on error,warning "$changes" ||
      { echo "FAIL: lintian on $(basename "$changes")"; exit 1; }
    echo "$(basename "$changes"): lintian clean"
  done

  banner "packages: contents"
  doc='usr/share/doc/(libvelk1|libvelk-dev|velk-term)/(changelog\.gz|copyright)'
  for arch in amd64 armhf; do
    lib="usr/lib/$(dpkg-architecture -a$arch -qDEB_HOST_MULTIARCH 2>/dev/null)"
    check_package_files "$dir"/libvelk1_"$version"_$arch.deb "$lib/libvelk\.so\.1" \
      "$lib/libvelk\.so\.$version" "$doc"
    check_package_files "$dir"/libvelk-dev_"$version"_$arch.deb 'usr/include/velk/emv_kernel\.h' \
      'usr/include/velk/emv_kernel_global\.h' "$lib/libvelk\.a" "$lib/libvelk\.so" \
      "$lib/pkgconfig/velk\.pc" "$lib/cmake/velk/velkConfig\.cmake" \
      "$lib/cmake/velk/velkConfigVersion\.cmake" "$lib/cmake/velk/velkTargets(-[a-z]+)?\.cmake" \
      'usr/share/doc/libvelk-dev/(integration|abi)\.md(\.gz)?' \
      'usr/share/doc/libvelk-dev/examples/minimal_host\.c' 'usr/share/man/man3/libvelk\.3\.gz' "$doc"
  done
  check_package_files "$dir"/velk-term_"$version"_amd64.deb 'usr/bin/velk-term' \
    'usr/share/velk-term/profiles/.+' 'usr/share/man/man1/velk-term\.1\.gz' \
    'usr/share/doc/velk-term/velk-term\.md(\.gz)?' "$doc"
  for deb in "$dir"/*.deb; do dpkg-deb -f "$deb" Package Architecture Version Depends; done

  if [ "$(id -u)" != 0 ]; then
    echo "packages: not root, so the packages were built and checked but not installed"
    return
  fi
  banner "packages: install and use (amd64)"
  trap packages_remove EXIT
  dpkg -i "$dir"/libvelk1_"$version"_amd64.deb "$dir"/libvelk-dev_"$version"_amd64.deb \
    "$dir"/velk-term_"$version"_amd64.deb >/dev/null
  installed=$(dpkg -L libvelk1 libvelk-dev)
  for f in /usr/include/velk/emv_kernel.h /usr/lib/*/libvelk.so.1 /usr/lib/*/pkgconfig/velk.pc; do
    printf '%s\n' "$installed" | grep -q -x "$f" || { echo "FAIL: dpkg -L lists no $f"; exit 1; }
  done
  ldconfig -p | grep -q 'libvelk\.so\.1 ' || { echo "FAIL: libvelk.so.1 unknown to ldconfig"; exit 1; }
  sh "$ROOT/tests/abi/check_imports.sh" /usr/lib/x86_64-linux-gnu/libvelk.so.1 >/dev/null ||
    { echo "FAIL: the packaged library imports more than it may"; exit 1; }
  # The manual pages, every subcommand of velk-term in its page.
  for command in pay run decode tvr serve-vpcd; do
    MANWIDTH=100 man -P cat velk-term 2>/dev/null | grep -q "^ *$command\$" ||
      { echo "FAIL: man velk-term has no section for $command"; exit 1; }
  done
  man -w libvelk.3 >/dev/null || { echo "FAIL: man 3 libvelk is not installed"; exit 1; }

  work=$dir/use
  rm -rf "$work" && mkdir -p "$work"
  # The C example, built against the installed package with pkg-config.
  # shellcheck disable=SC2046
  cc -std=c11 -Wall -Wextra -Werror -pedantic "$ROOT/examples/minimal_host.c" \
    $(pkg-config --cflags --libs velk) -o "$work/minimal_host"
  ldd "$work/minimal_host" | grep -E -q 'libvelk\.so\.1 => (/usr)?/lib/' ||
    { echo "FAIL: the example does not load the installed libvelk.so.1"; exit 1; }
  "$work/minimal_host" >"$work/minimal_host.out" 2>&1 || true
  grep 'Outcome:' "$work/minimal_host.out" || true
  grep -q 'Outcome: Approved (0x10)' "$work/minimal_host.out" ||
    { echo "FAIL: the example host did not approve"; exit 1; }
  # The CMake package of the installed system.
  cmake -S "$ROOT/tests/consumer" -B "$work/consumer" -G Ninja -DEXPECTED_PREFIX=/usr >/dev/null
  build "$work/consumer"
  "$work/consumer/consumer_shared" && "$work/consumer/consumer_static"
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

  banner "packages: install and use (armhf, under qemu-user)"
  dpkg -i "$dir"/libvelk1_"$version"_armhf.deb "$dir"/libvelk-dev_"$version"_armhf.deb >/dev/null
  # shellcheck disable=SC2046
  arm-linux-gnueabihf-gcc -std=c11 -Wall -Wextra -Werror -pedantic "$ROOT/examples/minimal_host.c" \
    $(PKG_CONFIG_LIBDIR=/usr/lib/arm-linux-gnueabihf/pkgconfig pkg-config --cflags --libs velk) \
    -o "$work/minimal_host_armhf"
  file "$work/minimal_host_armhf" | grep -q 'ARM' || { echo "FAIL: the armhf example is not ARM"; exit 1; }
  qemu-arm "$work/minimal_host_armhf" >"$work/minimal_host_armhf.out" 2>&1 || true
  grep 'Outcome:' "$work/minimal_host_armhf.out" || true
  grep -q 'Outcome: Approved (0x10)' "$work/minimal_host_armhf.out" ||
    { echo "FAIL: the armhf example host did not approve under qemu"; exit 1; }

  banner "packages: remove"
  packages_remove
  trap - EXIT
  if dpkg -s libvelk1 >/dev/null 2>&1 || dpkg -s libvelk1:armhf >/dev/null 2>&1 || [ -e /usr/include/velk ]; then
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
      # The kernel on the OpenSSL host framework, velk-term and the virtual
      # card, with every test under ASan and UBSan.
      configure_and_test asan "" -DCMAKE_BUILD_TYPE=Debug -DVELK_SANITIZE=address,undefined \
        -DVELK_BUILD_HOST=ON ;;
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
      # Every source file carries the project's licence identifier.
      missing=$(git -C "$ROOT" ls-files | grep -E '\.(c|cc|cpp|h|hpp|sh|py|cmake)$|(^|/)CMakeLists\.txt$' |
        while read -r f; do head -n 3 "$ROOT/$f" | grep -q 'SPDX-License-Identifier: Apache-2.0' || echo "$f"; done)
      [ -z "$missing" ] || { echo "FAIL: no SPDX-License-Identifier line in:"; echo "$missing"; exit 1; }
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
