#!/usr/bin/env bash
# Builds the Debian packages of libzel into build-package/ (plain release
# build): libzel0 (the shared library), libzel-dev (headers, static library,
# pkg-config and CMake files) and libzel-tools (the programs and man pages).
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/install-deps.sh
cmake -S . -B build-package -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZEL_TESTS=OFF >/dev/null
cmake --build build-package -j "$(nproc)"
(cd build-package && cpack -G DEB)
ls build-package/*.deb
