#!/usr/bin/env bash
# Builds everything and runs all tests; runs the probe once under valgrind and
# every fuzz target briefly; then runs all tests again in an AddressSanitizer +
# UndefinedBehaviorSanitizer build. The Debian package is built, checked by
# lintian and installed and purged on this machine in between.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh curl libxml2-utils socat valgrind systemd clang libclang-rt-14-dev haproxy prometheus iproute2 jq debhelper lintian
jobs=$(nproc)

cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUELM_WERROR=ON >/dev/null
cmake --build build -j "$jobs"
(cd build && ctest --output-on-failure -j "$jobs")

# One start, serve, stop cycle of the probe under valgrind memcheck.
bash scripts/valgrind-cycle.sh build/quelmloadprobe

# The Debian package: built, lintian-clean, installed, removed and purged.
bash scripts/package-test.sh

# Every fuzz target briefly (its seed and regression inputs first); fails on a finding.
bash fuzz/run_brief.sh

cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DQUELM_WERROR=ON -DQUELM_SANITIZE=ON >/dev/null
cmake --build build-asan -j "$jobs"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
(cd build-asan && ctest --output-on-failure -j "$jobs")
