#!/bin/sh
# The whole test suite, as CI runs it, on a fresh Debian 12 machine as root:
# installs the Debian packages it needs, then builds and tests natively, under
# ASan+UBSan, under TSan (the threaded tests), for 32-bit ARM under qemu, and
# runs the fuzzers for a bounded time.
#
#   ./scripts/test.sh            everything
#   ./scripts/test.sh native     one stage (native, asan, tsan, armhf, fuzz)
set -eu
cd "$(dirname "$0")/.."
ROOT=$(pwd)

PACKAGES="cmake ninja-build g++ gcc clang libclang-rt-14-dev pkg-config file
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
STAGES=${*:-native asan tsan armhf fuzz}
FUZZ_SECONDS=${FUZZ_SECONDS:-40}

banner() { printf '\n==== %s ====\n' "$*"; }

# Builds quietly; on failure shows the end of the log.
build() {
  if ! ninja -C "$1" -j "$JOBS" >"$1/build.log" 2>&1; then
    tail -n 60 "$1/build.log"; echo "build failed in $1" >&2; exit 1
  fi
}

configure_and_test() { # name, ctest args, cmake args...
  name=$1; shift; ctest_args=$1; shift
  banner "$name: build"
  cmake -S "$ROOT" -B "$ROOT/build-$name" -G Ninja "$@" >/dev/null
  build "$ROOT/build-$name"
  banner "$name: tests"
  # shellcheck disable=SC2086
  (cd "$ROOT/build-$name" && ctest --output-on-failure -j "$JOBS" $ctest_args)
}

for stage in $STAGES; do
  case $stage in
    native)
      configure_and_test native "" -DCMAKE_BUILD_TYPE=RelWithDebInfo ;;
    asan)
      configure_and_test asan "" -DCMAKE_BUILD_TYPE=Debug -DVELK_SANITIZE=address,undefined ;;
    tsan)
      configure_and_test tsan "-L threads" -DCMAKE_BUILD_TYPE=Debug -DVELK_SANITIZE=thread ;;
    armhf)
      configure_and_test armhf "" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/toolchain-armhf.cmake" -DVELK_BUILD_HOST=OFF ;;
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
