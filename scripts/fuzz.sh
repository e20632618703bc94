#!/usr/bin/env bash
# Builds the libFuzzer targets in build-fuzz/ and runs each one for the given
# number of seconds (default 600), two at a time. Each target starts from its
# seed corpus in fuzz/corpus/<name>/, copied into the git-ignored
# fuzz/corpus-work/<name>/, where the inputs it finds accumulate between runs.
# Fails if any target finds a crash, a leak, a hang or runaway memory; the
# input that did it is left in fuzz/corpus-work/artifacts/.
#
#   bash scripts/fuzz.sh [seconds-per-target] [target ...]
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
seconds=${1:-600}
shift || true
targets=("$@")
((${#targets[@]})) || targets=(transmission command properties vmstat strings logescape)

bash scripts/deps.sh clang libclang-rt-14-dev
cmake -S fuzz -B build-fuzz -G Ninja -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build-fuzz -j "$(nproc)" -- "${targets[@]/%/_fuzz}" >/dev/null

work="$root/fuzz/corpus-work"
mkdir -p "$work/artifacts" "$work/logs"

run_target() {
  local name=$1 max_len=1024
  [ "$name" = properties ] && max_len=4096
  mkdir -p "$work/$name"
  cp -n "$root/fuzz/corpus/$name/"* "$work/$name/" 2>/dev/null || true
  # The options are libFuzzer's own: a hang is an input slower than
  # -timeout seconds; memory above -rss_limit_mb is runaway growth.
  "$root/build-fuzz/${name}_fuzz" "$work/$name" \
    -max_total_time="$seconds" -max_len="$max_len" -timeout=10 -rss_limit_mb=2048 \
    -artifact_prefix="$work/artifacts/$name-" -print_final_stats=1 \
    >"$work/logs/$name.log" 2>&1
}

report() {
  local name=$1 status=$2 log="$work/logs/$1.log" done_line
  done_line=$(grep -E '^Done [0-9]+ runs in [0-9]+ second' "$log" | tail -n 1 || true)
  if [ "$status" -eq 0 ] && [ -n "$done_line" ]; then
    echo "$name: ${done_line}"
    return 0
  fi
  echo "$name: FAILED (exit $status); last lines of $log:"
  tail -n 40 "$log"
  return 1
}

# Two targets at a time on the two cores.
failed=0
for ((i = 0; i < ${#targets[@]}; i += 2)); do
  pids=() names=()
  for name in "${targets[@]:i:2}"; do
    run_target "$name" &
    pids+=($!) names+=("$name")
  done
  for k in "${!pids[@]}"; do
    status=0
    wait "${pids[$k]}" || status=$?
    report "${names[$k]}" "$status" || failed=1
  done
done

if ((failed)); then
  echo "fuzz: findings above; inputs in $work/artifacts/"
  exit 1
fi
echo "fuzz: ${#targets[@]} targets, $seconds s each, no findings"
