#!/usr/bin/env bash
# Builds an optimised tree and runs every benchmark program.
# Extra arguments go to each benchmark (for example --benchmark_filter=...).
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/install-deps.sh
cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DZEL_SANITIZE= -DZEL_TESTS=OFF -DZEL_BENCH=ON >/dev/null
cmake --build build-bench -j "$(nproc)"
for b in build-bench/bench/bench_*; do
  [ -x "$b" ] || continue
  echo "== $(basename "$b")"
  "$b" "$@"
done
