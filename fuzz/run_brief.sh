#!/usr/bin/env bash
# A short run of every fuzz target for the test command: enough to replay the
# seed and regression corpus and explore a little. Fails on any finding.
set -euo pipefail
cd "$(dirname "$0")/.."
exec bash scripts/fuzz.sh "${QUELM_FUZZ_BRIEF_SECONDS:-20}"
