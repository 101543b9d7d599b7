#!/usr/bin/env bash
# Checks of the installed library, run on a plain (non-sanitized) build:
#   check.sh symbols BUILD   libzel.so exports exactly the names of cmake/libzel.map,
#                            which are the names the headers declare ZEL_API
#   check.sh install BUILD   DESTDIR install, then a pkg-config and a CMake consumer
#   check.sh package BUILD   cpack -G DEB, the dev package's contents, dpkg -i of
#                            runtime and dev into a throwaway root, a consumer on it
set -eEuo pipefail
mode=$1 build=$(realpath "$2")
here=$(cd "$(dirname "$0")" && pwd) src=$(cd "$(dirname "$0")/../.." && pwd)
tmp=$(mktemp -d) && trap 'rm -rf "$tmp"' EXIT
# CI keeps standard output only: say there which step failed.
trap 'echo "check.sh $mode: failed at line $LINENO: $BASH_COMMAND"' ERR

# Builds and runs the C11 consumer through pkg-config against the .pc under $1.
pkgconfig_consumer() {
  local flags
  # pkg-config escapes the blanks of a path; eval splits on the others only.
  eval "flags=($(PKG_CONFIG_PATH=$1 pkg-config --cflags --libs libzel))"
  cc -std=c11 -pedantic-errors -Wall -Werror "$here/consumer.c" "${flags[@]}" -o "$tmp/c-consumer"
  export LD_LIBRARY_PATH=$1/..  # the installed copy, not the build tree's
  ldd "$tmp/c-consumer" | grep -q "libzel.so.0 => $tmp/"
  "$tmp/c-consumer"
}

case $mode in
symbols)
  # The list, the library's exports and the headers' ZEL_API names agree: a
  # name missing from the list would be hidden by the version script.
  sed -n '/global:/,/local:/s/^ *\([A-Za-z_][A-Za-z0-9_]*\);$/\1/p' "$src/cmake/libzel.map" >"$tmp/list"
  nm -D --defined-only "$build/libzel.so" | awk '$2 != "A" {sub(/@.*/, "", $3); print $3}' |
    LC_ALL=C sort >"$tmp/library"
  grep -h '^ZEL_API' "$src"/include/zel/*.h | grep -o 'ZEL_API[^(;[]*' |
    grep -o '[A-Za-z_][A-Za-z0-9_]*$' | LC_ALL=C sort >"$tmp/headers"
  diff -u "$tmp/list" "$tmp/library" && diff -u "$tmp/list" "$tmp/headers"
  echo "exported symbols match cmake/libzel.map and include/zel/" ;;
install)
  DESTDIR=$tmp/root cmake --install "$build" --prefix /opt/zel >/dev/null
  lib=$tmp/root/opt/zel/lib
  test -L "$lib/libzel.so" && test -e "$lib/libzel.so.0" && test -f "$lib/libzel.a"
  readelf -d "$lib/libzel.so" | grep -q 'SONAME.*\[libzel.so.0\]'
  pkgconfig_consumer "$lib/pkgconfig"
  cd "$tmp"  # outside the source tree
  cmake -S "$here" -B cmake-consumer -DCMAKE_PREFIX_PATH="$tmp/root/opt/zel" >/dev/null
  cmake --build cmake-consumer >/dev/null
  ldd cmake-consumer/consumer | grep -q "libzel.so.0 => $tmp/root/opt/zel/lib/"
  ./cmake-consumer/consumer ;;
package)
  cpack --config "$build/CPackConfig.cmake" -G DEB -B "$tmp/deb" >/dev/null 2>&1
  ls "$tmp"/deb/libzel0_*.deb "$tmp"/deb/libzel-dev_*.deb "$tmp"/deb/libzel-tools_*.deb >/dev/null
  dpkg-deb -c "$tmp"/deb/libzel-dev_*.deb | awk '{print $6}' >"$tmp/dev.txt"
  for f in include/zel/data.h pkgconfig/libzel.pc cmake/libzel/libzelConfig.cmake libzel.so; do
    grep -q "$f" "$tmp/dev.txt" || { echo "dev package lacks $f" >&2; exit 1; }
  done
  dpkg-deb -f "$tmp"/deb/libzel0_*.deb Depends | grep -q libsqlite3-0
  # A throwaway root with its own dpkg database; the system is not touched.
  root=$tmp/root && mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
  touch "$root/var/lib/dpkg/status"
  dpkg --root="$root" --force-depends --force-not-root --force-script-chrootless \
       -i "$tmp"/deb/libzel0_*.deb "$tmp"/deb/libzel-dev_*.deb >"$tmp/dpkg.log" 2>&1 ||
    { cat "$tmp/dpkg.log" >&2; exit 1; }
  pkgconfig_consumer "$(dirname "$(find "$root/usr" -name libzel.pc)")" ;;
esac
