#!/usr/bin/env bash
# Builds the probe and runs it in the foreground on the sample configuration
# in config/; logs and the pid file go to var/ (git-ignored). Ctrl-C stops it.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build --target quelmloadprobe quelmloadctl
mkdir -p var
echo "quelmloadprobe: config/quelmloadbalancing.properties, logs and pid file in var/"
exec ./build/quelmloadprobe config "$(nproc)"
