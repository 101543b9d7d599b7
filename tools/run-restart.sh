#!/usr/bin/env bash
# The restart scenario: the emulated kernel module (zel-kmodd) loses its
# state when it restarts, as the real one does on a host restart, and the
# state persisted by an agent brings it back, from the state file and from
# the configuration store.  Every step is a separate process; the programs
# reach the module through the device shim (LD_PRELOAD).
# Usage: tools/run-restart.sh [build dir]   (exit 0 when both restores are equal)
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build}
if [ ! -f "$dir/CMakeCache.txt" ]; then
  bash tools/install-deps.sh
  cmake -S . -B "$dir" -G Ninja -DZEL_TESTS=OFF >/dev/null
fi
cmake --build "$dir" -j "$(nproc)" --target zel-kmodd zel_devshim zel_agent zelctl >/dev/null
shim=$(realpath "$dir/sim/kmod/libzel_devshim.so")
agent=$(realpath "$dir/zel_agent")
zelctl=$(realpath "$dir/tools/zelctl/zelctl")

work=$(mktemp -d)
daemon=
cleanup() { [ -n "$daemon" ] && kill -KILL "$daemon" 2>/dev/null; rm -rf "$work"; }
trap cleanup EXIT
export ZEL_KMOD_SOCKET=$work/run/kmod.sock ZEL_CONFIGSTORE_PATH=$work/configstore.db
state=$work/zel.state

start_daemon() {
  "$dir/zel-kmodd" --socket "$ZEL_KMOD_SOCKET" &
  daemon=$!
  for _ in $(seq 100); do [ -S "$ZEL_KMOD_SOCKET" ] && return; sleep 0.05; done
  echo "run-restart: zel-kmodd did not start" >&2; exit 2
}
# A crash, not a clean stop: the stale socket is left for the next daemon.
kill_daemon() { kill -KILL "$daemon"; wait "$daemon" 2>/dev/null || true; daemon=; }
with_shim() { LD_PRELOAD=$shim "$@"; }
module() { with_shim "$agent" stats | tr '\n' ' ' | sed 's/ $//'; echo; }
# zelctl restores (after verifying) and compares by decoded value.
zelctl_step() {
  echo "   \$ zelctl $*"
  with_shim "$zelctl" "$@" | sed 's/^/   /'
}
restore() { zelctl_step kernel restore "$1"; }
diff_kernel() { zelctl_step diff kernel "$1"; }

echo "1. zel-kmodd started on $ZEL_KMOD_SOCKET"
start_daemon
echo "2. an agent creates switches, ports and properties and persists the state"
with_shim "$agent" populate
with_shim "$agent" persist "file:$state"
with_shim "$agent" persist store
echo "   module: $(module)"
echo "   state file $state ($(stat -c %s "$state") bytes), store $ZEL_CONFIGSTORE_PATH"
echo "3. zel-kmodd killed and started again"
kill_daemon; start_daemon
echo "   module: $(module)"
echo "4. a second process restores the state from the file"
restore "file:$state"
echo "   module: $(module)"
diff_kernel "file:$state"
echo "5. zel-kmodd killed and started again; the state restored from the store"
kill_daemon; start_daemon
echo "   module: $(module)"
restore store
echo "   module: $(module)"
diff_kernel store
diff_kernel "file:$state"
kill -TERM "$daemon"; wait "$daemon"; daemon=
echo "restart scenario: the state survived both restarts"
