#!/usr/bin/env bash
# Installs the packages the build and the tests need, only those missing.
set -euo pipefail
want=(g++ cmake ninja-build libgtest-dev libgmock-dev procps "$@")
missing=()
for p in "${want[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  SUDO=""; [ "$(id -u)" -eq 0 ] || SUDO=sudo
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq "${missing[@]}" >/dev/null
fi
