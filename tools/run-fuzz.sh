#!/usr/bin/env bash
# Runs every fuzz target for the given seconds (default 300) on its seed corpus.
# Usage: tools/run-fuzz.sh [seconds] [build dir]
set -euo pipefail
cd "$(dirname "$0")/.."
secs=${1:-300}
dir=${2:-build-fuzz}
if [ ! -d "$dir" ]; then
  bash tools/install-deps.sh
  CC=clang CXX=clang++ cmake -S . -B "$dir" -G Ninja -DZEL_TESTS=OFF -DZEL_FUZZ=ON >/dev/null
  cmake --build "$dir" -j "$(nproc)"
fi
for fuzzer in "$dir"/tests/fuzz/fuzz_*; do
  [ -x "$fuzzer" ] || continue
  name=$(basename "$fuzzer")
  corpus="$dir/corpus/$name"
  rm -rf "$corpus"; mkdir -p "$corpus"
  # Each target writes its own well-formed seeds when asked through this variable.
  ZEL_FUZZ_WRITE_SEEDS="$corpus" "$fuzzer" >/dev/null
  echo "-- $name for ${secs}s"
  # A dictionary of the input's key words sits beside a target that has one.
  dict="tests/fuzz/$name.dict"; extra=()
  [ -f "$dict" ] && extra=(-dict="$dict")
  "$fuzzer" -max_total_time="$secs" ${extra[@]+"${extra[@]}"} -print_final_stats=1 "$corpus" 2>&1 | tail -n 3
done
