#!/usr/bin/env bash
# Builds the Debian package from a copy of this source tree (build folders
# left out), so that the tree itself stays clean:
#   bash scripts/package.sh [OUTDIR]     (default: build-deb)
# The .deb, .buildinfo and .changes land in OUTDIR. DEBFULLNAME and DEBEMAIL,
# when set, name the package's maintainer.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh build-essential debhelper dpkg-dev
out=$(realpath -m "${1:-build-deb}")
rm -rf "$out" && mkdir -p "$out/src"
tar --exclude='./build*' --exclude='./obj-*' --exclude=./.git --exclude=./var -cf - . | tar -xf - -C "$out/src"
(cd "$out/src" && dpkg-buildpackage -us -uc -b -j"$(nproc)") >"$out/build.log" 2>&1 ||
  { tail -40 "$out/build.log"; exit 1; }
ls "$out"/*.deb
