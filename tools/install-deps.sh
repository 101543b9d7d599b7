#!/usr/bin/env bash
# Installs what a fresh Debian machine lacks to build, test and benchmark libzel.
set -euo pipefail
pkgs=(cmake ninja-build g++ clang libclang-rt-dev pkg-config libgtest-dev libgmock-dev
      libbenchmark-dev libsqlite3-dev sqlite3 nlohmann-json3-dev libcli11-dev
      doxygen help2man dpkg-dev file binutils libsimdjson-dev)
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  SUDO=""; [ "$(id -u)" -ne 0 ] && SUDO=sudo
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}"
fi
