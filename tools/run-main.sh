#!/usr/bin/env bash
# The main job on embedded defaults: builds the library, runs the end-to-end
# program, shows its state through zelctl, and runs the restart scenario of
# the emulated kernel module.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZEL_SANITIZE= -DZEL_TESTS=OFF >/dev/null
cmake --build build -j "$(nproc)"
./build/zel_main
# The state zel_main left behind, through zelctl: shown, compared with the
# store (it prints "equal"), and verified.
zelctl=./build/tools/zelctl/zelctl
printf '\n$ zelctl show file:work-main/zel.state\n'
"$zelctl" show file:work-main/zel.state
printf '\n$ zelctl diff file:work-main/zel.state store:work-main/configstore.db\n'
"$zelctl" diff file:work-main/zel.state store:work-main/configstore.db
printf '\n$ zelctl verify work-main/zel.state\n'
"$zelctl" verify work-main/zel.state
# The module's state survives a restart of the emulated kernel module
# (zel-kmodd), brought back from the state file and from the store.
printf '\n$ tools/run-restart.sh\n'
bash tools/run-restart.sh build
