#!/usr/bin/env bash
# The main job on embedded defaults: builds the library and runs the
# end-to-end program.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZEL_SANITIZE= -DZEL_TESTS=OFF >/dev/null
cmake --build build -j "$(nproc)"
./build/zel_main
