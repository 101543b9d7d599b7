#!/usr/bin/env bash
# The whole test suite: unit tests under AddressSanitizer and
# UndefinedBehaviorSanitizer, the multi-threaded tests under ThreadSanitizer,
# a short run of every fuzz target, and on a plain library build the exported
# symbol list, an install with two consumers and the Debian packages.
# FUZZ_SECONDS sets the fuzz time of each target (default 20).
set -eEuo pipefail
cd "$(dirname "$0")/.."
# CI keeps standard output only: errors go there too, and a failure names its
# step and the free disk space.
exec 2>&1
trap 'echo "run-tests.sh: failed at line $LINENO: $BASH_COMMAND"; df -h . | tail -n 1' ERR
bash tools/install-deps.sh
jobs=$(nproc)
echo "== $(nproc) processors; disk: $(df -h . | awk 'NR == 2 {print $4 " free of " $2}')"

echo "== build: address,undefined"
cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DZEL_SANITIZE=address,undefined >/dev/null
cmake --build build-asan -j "$jobs"

echo "== build: thread"
cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DZEL_SANITIZE=thread >/dev/null
cmake --build build-tsan -j "$jobs" --target zel_tests

echo "== build: fuzz targets (clang)"
CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DZEL_TESTS=OFF -DZEL_FUZZ=ON >/dev/null
cmake --build build-fuzz -j "$jobs"

echo "== build: plain library and programs"
cmake -S . -B build-plain -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZEL_TESTS=OFF >/dev/null
cmake --build build-plain -j "$jobs"

echo "== multi-threaded tests under ThreadSanitizer"
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
  ./build-tsan/tests/zel_tests --gtest_filter='*Concurrency*' --gtest_brief=1

echo "== fuzz: ${FUZZ_SECONDS:-20} s per target"
bash tools/run-fuzz.sh "${FUZZ_SECONDS:-20}" build-fuzz

echo "== installed library: symbols, install and consumers, packages"
# A check that fails is run once more, so that a passing rerun shows the
# failure came from the machine, not the package; both outputs stay in the log.
for check in symbols install package; do
  bash tests/install/check.sh "$check" build-plain ||
    { echo "check $check failed; running it again"; bash tests/install/check.sh "$check" build-plain; }
done

echo "== unit tests under AddressSanitizer and UndefinedBehaviorSanitizer"
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
ctest --test-dir build-asan -j "$jobs" --output-on-failure
